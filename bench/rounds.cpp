#include "rounds.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <numeric>
#include <random>

namespace kova_bench {

namespace {

constexpr int kWarmUpRounds = 10;

Samples ratios(const Samples& samples, const Samples& floor) {
  Samples result(samples.size());
  std::transform(samples.begin(), samples.end(), floor.begin(), result.begin(),
                 [](double sample, double base) { return sample / base; });
  return result;
}

}  // namespace

std::vector<Samples> run_rounds(const std::vector<Subject>& subjects, int rounds) {
  std::vector<Samples> samples(subjects.size());
  std::vector<std::size_t> order(subjects.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::minstd_rand random;
  for (int round = -kWarmUpRounds; round < rounds; ++round) {
    std::shuffle(order.begin(), order.end(), random);
    for (const std::size_t index : order) {
      const double milliseconds = subjects[index].run();
      if (milliseconds < 0) {
        std::fprintf(stderr, "%s has failed\n", subjects[index].name.c_str());
        return {};
      }
      if (round >= 0) samples[index].push_back(milliseconds);
    }
  }
  return samples;
}

double quantile(Samples samples, double share) {
  const auto position =
      static_cast<std::ptrdiff_t>(share * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), samples.begin() + position, samples.end());
  return samples[static_cast<std::size_t>(position)];
}

void print_table(const std::vector<Subject>& subjects, const std::vector<Samples>& samples) {
  std::printf("| %-36s | median ms |  10 %% to 90 %% ms | ratio | its quartiles | undisturbed |\n",
              "");
  std::printf("|%s|----------:|-----------------:|------:|--------------:|------------:|\n",
              std::string(38, '-').c_str());
  for (std::size_t i = 0; i < subjects.size(); ++i) {
    const Samples ratio = ratios(samples[i], samples[0]);
    std::printf("| %-36s | %9.3f | %7.3f, %7.3f | %5.2f |    %4.2f, %4.2f | %11.2f |\n",
                subjects[i].name.c_str(), quantile(samples[i], 0.5), quantile(samples[i], 0.1),
                quantile(samples[i], 0.9), quantile(ratio, 0.5), quantile(ratio, 0.25),
                quantile(ratio, 0.75), quantile(samples[i], 0.1) / quantile(samples[0], 0.1));
  }
}

}  // namespace kova_bench
