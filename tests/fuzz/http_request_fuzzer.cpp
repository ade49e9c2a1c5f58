// The header look-up and the list match, against plain ones.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/ascii.h"
#include "fuzz/require.h"
#include "http/request.h"

namespace {

using kova::fuzz::require;

std::string lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = kova::to_lower(c);
  return out;
}

std::string trimmed(std::string_view text) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && kova::is_space(text[begin])) ++begin;
  while (end > begin && kova::is_space(text[end - 1])) --end;
  return std::string(text.substr(begin, end - begin));
}

/// The pieces between separators; what follows the last one is a piece too.
std::vector<std::string> split(std::string_view text, std::string_view separator) {
  std::vector<std::string> pieces;
  std::size_t begin = 0;
  for (;;) {
    const std::size_t end = text.find(separator, begin);
    pieces.emplace_back(text.substr(begin, end - begin));
    if (end == std::string_view::npos) return pieces;
    begin = end + separator.size();
  }
}

std::optional<std::string> plain_header(std::string_view received, std::string_view name) {
  const std::vector<std::string> lines = split(received, "\r\n");
  const std::string start = lower(name) + ":";
  // The first line is no header, the last piece no line.
  for (std::size_t i = 1; i + 1 < lines.size(); ++i) {
    if (lower(lines[i]).starts_with(start)) return trimmed(lines[i].substr(start.size()));
  }
  return std::nullopt;
}

bool is_plainly_in_list(std::string_view value, std::string_view list) {
  for (const std::string& piece : split(list, ",")) {
    std::size_t begin = 0;
    while (begin < piece.size() && kova::is_space(piece[begin])) ++begin;
    const std::string item = lower(trimmed(piece.substr(begin).substr(0, 511)));
    if (!item.empty() && item == lower(value)) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view received(reinterpret_cast<const char*>(data), size);
  for (const char* const name : {"Host", "Content-Length"}) {
    const auto value = kova::find_header(received, name);
    const auto plain = plain_header(received, name);
    require(value.has_value() == plain.has_value(), "the same headers are found");
    require(!value || *value == *plain, "a header has one value");
  }
  const std::size_t end = received.find('\n');
  if (end != std::string_view::npos) {
    const std::string_view value = received.substr(0, end);
    const std::string_view list = received.substr(end + 1);
    require(kova::is_in_list(value, list) == is_plainly_in_list(value, list),
            "a list has the same items");
  }
  return 0;
}
