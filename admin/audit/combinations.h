// Counters for combinations of values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "admin/common/times.h"

namespace kova::admin {

/// How often something was seen, and between which times.
struct Span {
  std::uint64_t count = 0;
  UnixMs first = 0;
  UnixMs last = 0;

  void add(UnixMs time) {
    if (count == 0 || time < first) first = time;
    if (count == 0 || time > last) last = time;
    ++count;
  }
};

/// Keeps the first combinations that it meets and counts the records of all others together.
class Combinations {
 public:
  static constexpr std::size_t kLimit = 65536;

  struct Entry {
    std::uint64_t key;
    Span span;
  };

  Combinations();

  void add(std::uint64_t key, UnixMs time);
  /// In the order in which they were met.
  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }
  [[nodiscard]] const Span& others() const { return others_; }

 private:
  [[nodiscard]] Span& span_of(std::uint64_t key);

  std::vector<Entry> entries_;
  /// The indices plus one, by hash with linear probing; 0 is an empty slot.
  std::vector<std::uint32_t> slots_;
  Span others_;
};

}  // namespace kova::admin
