// The floor for a driver that is no native program: for each line of its input it starts a program
// as cheaply as the system allows, gives it the line, reads one line from it and waits for its end.
//
//   floor-on-demand PROGRAM      replies with the microseconds that this took, a line each
#include <chrono>
#include <cstdio>
#include <string>

#include "spawn.h"

namespace kova_bench {

namespace {

using Clock = std::chrono::steady_clock;

/// Negative after a failure.
double microseconds_of(const char* program, const char* line) {
  const auto start = Clock::now();
  Spawned child;
  std::string reply;
  if (!child.run(program, nullptr, line, reply)) return -1;
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

}  // namespace

}  // namespace kova_bench

int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: %s PROGRAM\n", arguments[0]);
    return 2;
  }
  char line[4096];
  while (std::fgets(line, sizeof line, stdin) != nullptr) {
    const double took = kova_bench::microseconds_of(arguments[1], line);
    if (took < 0) return 1;
    std::printf("%.3f\n", took);
    if (std::fflush(stdout) != 0) return 1;
  }
  return 0;
}
