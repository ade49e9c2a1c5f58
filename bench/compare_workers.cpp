// What one build of the server costs next to another: a call that the policy decides, in a worker
// of its own, all builds in each round.
//
//   compare-workers ROUNDS SERVER SERVER...     KOVA_MCP_POLICY names the policy
//
// The ratio is the median over the rounds of a build's time to that of the first build. A copy of
// the first one shows how much of a difference is noise.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "rounds.h"
#include "spawn.h"

namespace kova_bench {

namespace {

constexpr std::string_view kListTables =
    R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"kova_list_tables",)"
    R"("arguments":{}}})"
    "\n";
constexpr std::string_view kSucceeded = R"("isError":false)";

using Clock = std::chrono::steady_clock;

double call(const char* server) {
  const auto start = Clock::now();
  Spawned worker;
  std::string line;
  if (!worker.run(server, "--tool-worker", kListTables, line)) return -1;
  const double milliseconds =
      std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  worker.wait_for_companions();
  if (line.find(kSucceeded) != std::string::npos) return milliseconds;
  std::fprintf(stderr, "%s\n", line.c_str());
  return -1;
}

bool run(int rounds, const std::vector<const char*>& servers) {
  std::vector<Subject> subjects;
  for (const char* const server : servers) {
    subjects.push_back({server, [server] { return call(server); }});
  }
  const std::vector<Samples> samples = run_rounds(subjects, rounds);
  if (samples.empty()) return false;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    Samples ratio(samples[i]);
    for (std::size_t round = 0; round < ratio.size(); ++round) ratio[round] /= samples[0][round];
    std::printf("%8.4f ms   ratio %6.4f   undisturbed %6.4f   %s\n", quantile(samples[i], 0.5),
                quantile(ratio, 0.5), quantile(samples[i], 0.1) / quantile(samples[0], 0.1),
                servers[i]);
  }
  return true;
}

}  // namespace

}  // namespace kova_bench

int main(int count, char** arguments) {
  const int rounds = count > 1 ? std::atoi(arguments[1]) : 0;
  if (rounds < 1 || count < 4) {
    std::fprintf(stderr, "usage: %s ROUNDS SERVER SERVER...\n", arguments[0]);
    return 2;
  }
  return kova_bench::run(rounds, {arguments + 2, arguments + count}) ? 0 : 1;
}
