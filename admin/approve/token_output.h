// Where an issued token goes: standard output or a new file, and nowhere else.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/durable_file.h"

namespace kova::admin {

/// The place of one token. Its space is reserved before the decision is journalled, so that a full
/// disk is noticed before anything is decided.
class TokenOutput {
 public:
  /// With an empty path the token goes to standard output. Throws Refusal when the file exists.
  explicit TokenOutput(std::string file);
  /// Removes a file that got no token.
  ~TokenOutput();
  TokenOutput(const TokenOutput&) = delete;
  TokenOutput& operator=(const TokenOutput&) = delete;

  /// Creates the file, readable by its owner alone, with room for a line of this size. Throws
  /// Refusal.
  void reserve(std::size_t size);
  /// Writes the line. Throws Refusal.
  void write(std::string_view line);

 private:
  std::string path_;
  PrivateFile file_;
  bool created_ = false;
  bool written_ = false;
};

}  // namespace kova::admin
