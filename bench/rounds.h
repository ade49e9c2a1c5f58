// Measuring several subjects round by round, so that a change in the machine's load meets them all.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kova_bench {

/// One thing that is measured: `run` does it once and returns the milliseconds that it took, or a
/// negative number when it failed.
struct Subject {
  std::string name;
  std::function<double()> run;
};

/// The milliseconds of one subject, by round.
using Samples = std::vector<double>;

/// Runs every subject once a round, in an order drawn anew for each round (the same ones in every
/// run), so that none always follows itself or the same other one, after some rounds that do not
/// count. Returns the samples by subject; empty when a run has failed.
[[nodiscard]] std::vector<Samples> run_rounds(const std::vector<Subject>& subjects, int rounds);

/// The value below which this share of the samples lies; 0.5 is the median.
[[nodiscard]] double quantile(Samples samples, double share);

/// A table line per subject: median, first and ninth decile, and the ratio to the first subject as
/// the median over the rounds and between the quartiles, and as that of the first deciles, which
/// other load on the machine disturbs least.
void print_table(const std::vector<Subject>& subjects, const std::vector<Samples>& samples);

}  // namespace kova_bench
