// A file that is followed while it grows, and across rotations.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/audit/lines.h"
#include "platform/shared_input.h"

namespace kova::admin {

/// Reads what is appended to the file of a name. When another file takes the name, the old one is
/// read on for kLingerMs, since a call that ends during the rotation may still append to it.
class FollowedFile {
 public:
  static constexpr std::uint64_t kLingerMs = 5000;

  /// Throws Refusal when the file cannot be opened.
  explicit FollowedFile(std::string path);

  /// Gives the complete lines that are new, each with `take(std::string_view line)`. A last line
  /// without its end waits for it, until the file is dropped. `now_ms` is any steady clock's.
  template <typename Take>
  void poll(std::uint64_t now_ms, const Take& take) {
    for (Part& part : parts_) read_part(part, take);
    look_for_another(now_ms);
    while (parts_.size() > 1 && now_ms >= parts_.front().until) {
      read_part(parts_.front(), take);
      parts_.front().splitter.finish(take);
      parts_.erase(parts_.begin());
    }
    if (parts_.size() > 1) read_part(parts_.back(), take);
  }

 private:
  /// One file that has or had the name; the newest is the last.
  struct Part {
    SharedInput input;
    FileIdentity identity;
    LineSplitter splitter;
    std::uint64_t position = 0;
    std::uint64_t until = UINT64_MAX;
  };

  template <typename Take>
  void read_part(Part& part, const Take& take) {
    const std::optional<std::uint64_t> size = part.input.size();
    if (size && *size < part.position) start_again(part);
    for (std::string_view bytes; !(bytes = read_block(part)).empty();) {
      part.splitter.add(bytes, take);
    }
  }
  [[nodiscard]] std::string_view read_block(Part& part);
  void look_for_another(std::uint64_t now_ms);
  static void start_again(Part& part);

  std::string path_;
  std::vector<char> block_;
  std::vector<Part> parts_;
};

}  // namespace kova::admin
