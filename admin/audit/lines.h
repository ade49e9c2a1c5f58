// The lines of a file that comes in pieces.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

#include "admin/audit/record.h"

namespace kova::admin {

/// Cuts pieces into lines at LF; memory is bounded whatever the file holds.
class LineSplitter {
 public:
  LineSplitter() { partial_.reserve(kKept); }

  /// Calls `take(std::string_view line)` for each line that ends in these bytes. A line of more
  /// than kAuditLineLimit bytes is given with at least one byte more than that, and is cut.
  template <typename Take>
  void add(std::string_view bytes, const Take& take) {
    const char* p = bytes.data();
    const char* const end = p + bytes.size();
    while (p != end) {
      const auto left = static_cast<std::size_t>(end - p);
      const auto* const feed = static_cast<const char*>(std::memchr(p, '\n', left));
      const std::size_t size = feed != nullptr ? static_cast<std::size_t>(feed - p) : left;
      if (feed == nullptr || has_partial_) keep({p, size});
      if (feed == nullptr) return;
      take(has_partial_ ? std::string_view(partial_) : std::string_view(p, size));
      drop();
      p = feed + 1;
    }
  }

  /// The same for a last line without its end.
  template <typename Take>
  void finish(const Take& take) {
    if (has_partial_) take(std::string_view(partial_));
    drop();
  }

 private:
  /// The longest line that is read, with the CR that may follow it, and one byte that says that
  /// the line goes on.
  static constexpr std::size_t kKept = kAuditLineLimit + 2;

  void keep(std::string_view bytes) {
    has_partial_ = true;
    partial_ += bytes.substr(0, kKept - partial_.size());
  }
  void drop() {
    has_partial_ = false;
    partial_.clear();
  }

  std::string partial_;
  bool has_partial_ = false;
};

}  // namespace kova::admin
