// Calls over time, in bounded memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>

#include "admin/common/times.h"

namespace kova::admin {

/// How a call ended, for the charts.
enum class Ending { kOk, kRefused, kFailed };
inline constexpr std::size_t kEndings = 3;

/// Calls by how they ended.
struct Bin {
  std::array<std::uint64_t, kEndings> calls{};

  [[nodiscard]] std::uint64_t total() const { return calls[0] + calls[1] + calls[2]; }
};

/// Counts calls in bins of equal width, which begin at multiples of it since 1970. The width is the
/// smallest of a fixed list that needs at most kBinLimit bins: it grows with the time that the log
/// spans.
class TimeBins {
 public:
  static constexpr std::size_t kBinLimit = 16384;

  TimeBins();

  void add(UnixMs time, Ending ending) {
    // Within the bin of the record before, nearly always.
    if (last_ == nullptr || time < last_begin_ || time - last_begin_ >= width()) find(time);
    ++last_->calls[static_cast<std::size_t>(ending)];
  }

  /// Merges bins until at most so many lie between the first and the last, empty ones included, or
  /// the widest is reached.
  void coarsen(std::size_t limit);
  /// In milliseconds.
  [[nodiscard]] UnixMs width() const;
  /// By the number of the bin: its beginning divided by the width. Empty bins are not there.
  [[nodiscard]] const std::map<std::int64_t, Bin>& bins() const { return bins_; }

 private:
  void find(UnixMs time);
  void widen();

  std::map<std::int64_t, Bin> bins_;
  std::size_t width_index_ = 0;
  Bin* last_ = nullptr;
  UnixMs last_begin_ = 0;
};

}  // namespace kova::admin
