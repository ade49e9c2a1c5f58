// Parsing and escaping next to simdjson and RapidJSON, on the same bytes. Benchmarks are named
// GROUP/INPUT/CONTENDER, which figures/raw.py reads.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "escape_bench.h"
#include "parse_bench.h"

namespace {

// Reply lines go to standard output; the results go to a file.
bool discard_standard_output() {
  const int null_device = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  return null_device >= 0 && ::dup2(null_device, STDOUT_FILENO) >= 0;
}

}  // namespace

int main(int count, char** arguments) {
  benchmark::Initialize(&count, arguments);
  if (benchmark::ReportUnrecognizedArguments(count, arguments)) return 2;
  if (!discard_standard_output()) return 1;
  kova_bench::register_parse_benchmarks();
  kova_bench::register_escape_benchmarks();
  return benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1;
}
