// Registration of benchmarks by group, input and contender.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace kova_bench {

/// `run` does the work once and returns whether it went well.
inline void register_contender(const std::string& group, const std::string& input,
                               const std::string& contender, std::size_t bytes,
                               std::function<bool()> run) {
  const std::string name = group + "/" + input + "/" + contender;
  benchmark::RegisterBenchmark(name.c_str(), [bytes, run](benchmark::State& state) {
    if (!run()) state.SkipWithError("failed");
    for (auto _ : state) {
      bool good = run();
      benchmark::DoNotOptimize(good);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
  });
}

}  // namespace kova_bench
