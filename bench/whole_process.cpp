// What a tool call costs, next to the bare spawn of an empty program.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "rounds.h"
#include "sample_file.h"
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
/// What the empty program replies.
constexpr std::string_view kEmptyReply = "{}";

using Clock = std::chrono::steady_clock;

double milliseconds_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Options {
  int rounds = 0;
  const char* floor = nullptr;
  const char* relay = nullptr;
  const char* server = nullptr;
  std::string query;
  const char* data = nullptr;
};

double spawn_to_exit(const char* path, const char* argument = nullptr) {
  const auto start = Clock::now();
  Spawned program;
  std::string line;
  if (!program.run(path, argument, kListTables, line)) return -1;
  const double milliseconds = milliseconds_since(start);
  program.wait_for_companions();
  return milliseconds;
}

/// A call through the running server; the reply stands for the end of the worker.
double call(Spawned& server, std::string_view request, std::string_view wanted = kSucceeded) {
  const auto start = Clock::now();
  std::string line;
  if (!server.write(request) || !server.read_line(line)) return -1;
  const double milliseconds = milliseconds_since(start);
  if (line.find(wanted) != std::string::npos) return milliseconds;
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

bool measure(const char* group, const std::vector<Subject>& subjects, int rounds,
             SampleFile& data) {
  const std::vector<Samples> samples = run_rounds(subjects, rounds);
  if (samples.empty()) return false;
  data.group(group, subjects, samples);
  print_table(subjects, samples);
  std::printf("\n");
  return true;
}

std::string query_request(const std::string& sql) {
  return R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"kova_query",)"
         R"("arguments":{"sql":")" +
         sql + "\"}}}\n";
}

void record_resident(const char* when, const Spawned& server, SampleFile& data) {
  const double mib = static_cast<double>(server.resident_bytes()) / 1048576.0;
  data.number((std::string("resident MiB ") + when).c_str(), mib);
  std::printf("resident memory %s: %.2f MiB\n\n", when, mib);
}

bool measure_calls(const Options& options, SampleFile& data) {
  Spawned server;
  Spawned relay;
  std::string line;
  if (!relay.start(options.relay, options.floor) || call(relay, kListTables, kEmptyReply) < 0) {
    std::fprintf(stderr, "the relay does not answer\n");
    return false;
  }
  if (!server.start(options.server) || !server.write(kInitialize) || !server.read_line(line)) {
    std::fprintf(stderr, "the server does not answer\n");
    return false;
  }
  record_resident("after initialize", server, data);
  const std::string query = query_request(options.query);
  const std::vector<Subject> subjects{
      {"floor: spawn, line, line, exit", [&] { return spawn_to_exit(options.floor); }},
      {"the floor through a relay", [&] { return call(relay, kListTables, kEmptyReply); }},
      {"(a) kova_list_tables by policy", [&] { return call(server, kListTables); }},
      {"its worker alone, without the server",
       [&] { return spawn_to_exit(options.server, "--tool-worker"); }},
      {"(b) kova_query of one row", [&] { return call(server, query); }}};
  if (!measure("calls", subjects, options.rounds, data)) return false;
  record_resident("after the calls", server, data);
  return true;
}

bool measure_starts(const Options& options, SampleFile& data) {
  return measure(
      "starts",
      {{"floor: spawn to first line", [&] { return spawn_to_first_line(options.floor); }},
       {"server: spawn to initialize's reply",
        [&] { return spawn_to_first_line(options.server); }}},
      options.rounds, data);
}

bool run(const Options& options) {
  SampleFile data;
  return data.open(options.data) && measure_calls(options, data) && measure_starts(options, data) &&
         data.close();
}

}  // namespace

}  // namespace kova_bench

int main(int count, char** arguments) {
  if (count != 7) {
    std::fprintf(stderr, "usage: %s ROUNDS FLOOR RELAY SERVER SELECT DATA\n", arguments[0]);
    return 2;
  }
  const kova_bench::Options options{static_cast<int>(std::strtol(arguments[1], nullptr, 10)),
                                    arguments[2],
                                    arguments[3],
                                    arguments[4],
                                    arguments[5],
                                    arguments[6]};
  if (options.rounds < 1) {
    std::fprintf(stderr, "the number of rounds is at least 1\n");
    return 2;
  }
  return kova_bench::run(options) ? 0 : 1;
}
