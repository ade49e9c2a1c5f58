// What a tool call costs, next to the bare spawn of an empty program.
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

constexpr std::string_view kInitialize =
    R"({"jsonrpc":"2.0","id":"hello","method":"initialize","params":{"protocolVersion":)"
    R"("2025-11-25","capabilities":{},"clientInfo":{"name":"bench","version":"1"}}})"
    "\n";
// Ids of calls that run in a worker may come again.
constexpr std::string_view kListTables =
    R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"kova_list_tables",)"
    R"("arguments":{}}})"
    "\n";
constexpr std::string_view kSucceeded = R"("isError":false)";

using Clock = std::chrono::steady_clock;

double milliseconds_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Options {
  const char* floor = nullptr;
  const char* server = nullptr;
  std::string query;
  int rounds = 0;
};

double spawn_to_exit(const char* path, const char* argument = nullptr) {
  const auto start = Clock::now();
  Spawned program;
  std::string line;
  if (!program.start(path, argument) || !program.write(kListTables) || !program.read_line(line) ||
      !program.wait()) {
    return -1;
  }
  const double milliseconds = milliseconds_since(start);
  program.wait_for_companions();
  return milliseconds;
}

/// A call through the running server; the reply stands for the end of the worker.
double call(Spawned& server, std::string_view request) {
  const auto start = Clock::now();
  std::string line;
  if (!server.write(request) || !server.read_line(line)) return -1;
  const double milliseconds = milliseconds_since(start);
  if (line.find(kSucceeded) != std::string::npos) return milliseconds;
  std::fprintf(stderr, "%s\n", line.c_str());
  return -1;
}

/// From the spawn to the first line of output; the end of the program is not counted.
double spawn_to_first_line(const char* path) {
  const auto start = Clock::now();
  Spawned program;
  std::string line;
  if (!program.start(path) || !program.write(kInitialize) || !program.read_line(line)) return -1;
  const double milliseconds = milliseconds_since(start);
  program.close_input();
  const bool ended = program.wait();
  program.wait_for_companions();
  return ended ? milliseconds : -1;
}

bool measure(const std::vector<Subject>& subjects, int rounds) {
  const std::vector<Samples> samples = run_rounds(subjects, rounds);
  if (samples.empty()) return false;
  print_table(subjects, samples);
  std::printf("\n");
  return true;
}

std::string query_request(const std::string& sql) {
  return R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"kova_query",)"
         R"("arguments":{"sql":")" +
         sql + "\"}}}\n";
}

void print_resident(const char* when, const Spawned& server) {
  std::printf("resident memory %s: %.2f MiB\n", when,
              static_cast<double>(server.resident_bytes()) / 1048576.0);
}

bool run(const Options& options) {
  Spawned server;
  std::string line;
  if (!server.start(options.server) || !server.write(kInitialize) || !server.read_line(line)) {
    std::fprintf(stderr, "the server does not answer\n");
    return false;
  }
  print_resident("after initialize", server);
  std::vector<Subject> subjects{
      {"floor: spawn, line, line, exit", [&] { return spawn_to_exit(options.floor); }},
      {"(a) kova_list_tables by policy", [&] { return call(server, kListTables); }},
      {"its worker alone, without the server",
       [&] { return spawn_to_exit(options.server, "--tool-worker"); }}};
  const std::string query = query_request(options.query);
  if (!options.query.empty()) {
    subjects.push_back({"(b) kova_query of one row", [&] { return call(server, query); }});
  }
  std::printf("\n");
  if (!measure(subjects, options.rounds)) return false;
  print_resident("after the calls", server);
  std::printf("\n");
  return measure(
      {{"floor: spawn to first line", [&] { return spawn_to_first_line(options.floor); }},
       {"server: spawn to initialize's reply",
        [&] { return spawn_to_first_line(options.server); }}},
      options.rounds);
}

}  // namespace

}  // namespace kova_bench

int main(int count, char** arguments) {
  if (count != 4 && count != 5) {
    std::fprintf(stderr, "usage: %s ROUNDS FLOOR SERVER [SELECT]\n", arguments[0]);
    return 2;
  }
  kova_bench::Options options;
  options.rounds = std::atoi(arguments[1]);
  options.floor = arguments[2];
  options.server = arguments[3];
  if (count == 5) options.query = arguments[4];
  if (options.rounds < 1) {
    std::fprintf(stderr, "the number of rounds is at least 1\n");
    return 2;
  }
  return kova_bench::run(options) ? 0 : 1;
}
