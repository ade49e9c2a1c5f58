// The command line of the sample engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kova::sample {

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

/// False leaves one line's words in `error`.
[[nodiscard]] bool parse_options(int count, char** arguments, Options& options, std::string& error);

/// What --help prints.
[[nodiscard]] const char* help_text();

}  // namespace kova::sample
