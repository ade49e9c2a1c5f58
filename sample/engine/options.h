// The command line of the sample engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "failure.h"

namespace kova::sample {

/// A failure of what the user gave: the command line or the users file.
class BadInput : public Failure {
 public:
  using Failure::Failure;
};

struct Options {
  std::uint16_t port = 0;
  std::string data;
  std::string users;
  std::size_t connections = 64;
  std::uint32_t timeout_seconds = 30;
  bool log = false;
  bool embed = false;
  bool help = false;
};

/// Throws for the first argument that is wrong.
[[nodiscard]] Options parse_options(int count, char** arguments);

/// What --help prints.
[[nodiscard]] const char* help_text();

}  // namespace kova::sample
