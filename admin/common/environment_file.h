// Environment files, read as the system's service manager reads them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "admin/common/secret_text.h"

namespace kova::admin {

inline constexpr std::size_t kEnvironmentFileLimit = 1048576;

struct EnvironmentEntry {
  std::string name;
  SecretText value;
};

/// Reads NAME=VALUE lines in file order. Empty lines and lines that begin with "#" or ";" are
/// comments. Blanks around a name and an unquoted value are dropped. Quotes, single or double,
/// stand around a value; in double quotes a backslash escapes `"`, `\`, "`" and "$" and stays
/// before anything else; outside quotes it keeps the next character as it is. Throws Refusal, with
/// the line, for a value over several lines, a quote left open, an invalid name, a line
/// without "=", a NUL, and what is no UTF-8.
[[nodiscard]] std::vector<EnvironmentEntry> parse_environment(std::string_view text);

/// The same for a file; a Refusal names it.
[[nodiscard]] std::vector<EnvironmentEntry> read_environment_file(const std::string& path);

}  // namespace kova::admin
