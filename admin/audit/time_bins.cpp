#include "admin/audit/time_bins.h"

#include <iterator>

namespace kova::admin {

namespace {

constexpr UnixMs kMinute = 60000;
constexpr UnixMs kHour = 60 * kMinute;
constexpr UnixMs kDay = 24 * kHour;
/// Each is a multiple of the one before.
constexpr UnixMs kWidths[] = {kMinute,  5 * kMinute, 15 * kMinute, kHour,       6 * kHour,   kDay,
                              7 * kDay, 28 * kDay,   364 * kDay,   3640 * kDay, 36400 * kDay};

/// Rounded down, before 1970 too.
std::int64_t bin_of(UnixMs time, UnixMs width) {
  return time >= 0 ? time / width : (time + 1) / width - 1;
}

}  // namespace

TimeBins::TimeBins() = default;

UnixMs TimeBins::width() const {
  return kWidths[width_index_];
}

void TimeBins::find(UnixMs time) {
  last_ = &bins_[bin_of(time, width())];
  while (bins_.size() > kBinLimit && width_index_ + 1 < std::size(kWidths)) {
    widen();
    last_ = &bins_[bin_of(time, width())];
  }
  last_begin_ = bin_of(time, width()) * width();
}

void TimeBins::widen() {
  const UnixMs old = width();
  ++width_index_;
  std::map<std::int64_t, Bin> narrow;
  narrow.swap(bins_);
  for (const auto& [number, bin] : narrow) {
    Bin& wide = bins_[bin_of(number * old, width())];
    for (std::size_t i = 0; i < kEndings; ++i) wide.calls[i] += bin.calls[i];
  }
  last_ = nullptr;
}

void TimeBins::coarsen(std::size_t limit) {
  while (!bins_.empty() && width_index_ + 1 < std::size(kWidths) &&
         static_cast<std::uint64_t>(bins_.rbegin()->first - bins_.begin()->first) >= limit) {
    widen();
  }
}

}  // namespace kova::admin
