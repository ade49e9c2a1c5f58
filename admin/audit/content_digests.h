// The digests of a file's content: of the whole and of its blocks of lines.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/digest_stream.h"

namespace kova::admin {

/// Lines of a block.
inline constexpr std::uint64_t kSealBlockLines = 1000;

/// Takes content in pieces. Blocks end after each kSealBlockLines lines and after `sealed_lines`;
/// what follows those is counted, and part of the whole alone.
class ContentDigests {
 public:
  /// Throws Refusal when there is no digest.
  explicit ContentDigests(std::uint64_t sealed_lines = UINT64_MAX);

  void add(std::string_view bytes);
  /// Ends the last line and the last block. The digests are there then.
  void finish();

  [[nodiscard]] const std::string& whole() const { return whole_text_; }
  [[nodiscard]] const std::vector<std::string>& blocks() const { return blocks_; }
  /// A last one without its end too.
  [[nodiscard]] std::uint64_t lines() const { return lines_; }

 private:
  void add_to_block(std::string_view bytes);
  void end_line();
  void end_block();

  std::uint64_t sealed_lines_;
  Sha256Stream whole_;
  Sha256Stream block_;
  bool block_is_open_ = false;
  bool line_is_open_ = false;
  std::uint64_t lines_ = 0;
  std::string whole_text_;
  std::vector<std::string> blocks_;
};

}  // namespace kova::admin
