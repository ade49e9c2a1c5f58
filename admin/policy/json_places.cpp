#include "admin/policy/json_places.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <nlohmann/json.hpp>

#include "json/json.h"

namespace kova::admin {

namespace {

constexpr std::size_t kUnitSize = 6;  // \uXXXX

bool is_unit(std::string_view source) {
  return source.size() >= kUnitSize && source.starts_with("\\u");
}

std::uint32_t unit_of(std::string_view source) {
  std::uint32_t unit = 0;
  return is_unit(source) && json_hex4(source.data() + 2, unit) ? unit : 0;
}

struct Piece {
  std::size_t source;   ///< bytes of the source text
  std::size_t decoded;  ///< bytes that they decode to
};

/// What the text begins with: one byte or one escape. The text is a JSON string that has parsed.
Piece first_piece(std::string_view source) {
  if (source.front() != '\\') return {.source = 1, .decoded = 1};
  if (!is_unit(source)) return {.source = std::min<std::size_t>(2, source.size()), .decoded = 1};
  const std::uint32_t unit = unit_of(source);
  if (unit < 0x80) return {.source = kUnitSize, .decoded = 1};
  if (unit < 0x800) return {.source = kUnitSize, .decoded = 2};
  const bool is_pair = unit >= 0xD800 && unit < 0xDC00;
  if (is_pair) return {.source = std::min(2 * kUnitSize, source.size()), .decoded = 4};
  return {.source = kUnitSize, .decoded = 3};
}

}  // namespace

std::size_t source_offset(std::string_view source, std::size_t offset) {
  std::size_t index = 0;
  for (std::size_t decoded = 0; index < source.size();) {
    const Piece piece = first_piece(source.substr(index));
    decoded += piece.decoded;
    if (decoded > offset) break;
    index += piece.source;
  }
  return index;
}

std::size_t decoded_offset(std::string_view source, std::size_t index) {
  std::size_t decoded = 0;
  for (std::size_t at = 0; at < index && at < source.size();) {
    const Piece piece = first_piece(source.substr(at));
    at += piece.source;
    decoded += piece.decoded;
  }
  return decoded;
}

std::size_t malformed_escape(std::string_view source) {
  for (std::size_t index = 0; index < source.size();) {
    const Piece piece = first_piece(source.substr(index));
    char decoded[4];
    char* target = decoded;
    if (!json_decode(source.substr(index, piece.source), target, std::end(decoded))) return index;
    index += piece.source;
  }
  return source.npos;
}

std::string call_head(std::string_view tool) {
  return R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":)" +
         nlohmann::json(tool).dump() + R"(,"arguments":)";
}

std::string byte_place(std::string_view text, std::size_t index) {
  const std::string_view before = text.substr(0, index);
  const std::size_t line_feed = before.rfind('\n');
  const std::size_t begin = line_feed == before.npos ? 0 : line_feed + 1;
  return fmt::format("line {}, column {}", 1 + std::ranges::count(before, '\n'), 1 + index - begin);
}

}  // namespace kova::admin
