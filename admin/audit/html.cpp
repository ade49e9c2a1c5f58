#include "admin/audit/html.h"

#include <cstdint>

#include "admin/audit/report_formats.h"
#include "admin/common/markup.h"
#include "admin/common/refusal.h"
#include "platform/crypto.h"

namespace kova::admin {

namespace {

/// RFC 4648, section 4.
std::string base64(const std::uint8_t* bytes, std::size_t size) {
  constexpr std::string_view kLetters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < size; i += 3) {
    const std::size_t left = size - i;
    const unsigned group = (static_cast<unsigned>(bytes[i]) << 16U) |
                           (left > 1 ? static_cast<unsigned>(bytes[i + 1]) << 8U : 0U) |
                           (left > 2 ? static_cast<unsigned>(bytes[i + 2]) : 0U);
    text += kLetters[group >> 18U];
    text += kLetters[(group >> 12U) & 63U];
    text += left > 1 ? kLetters[(group >> 6U) & 63U] : '=';
    text += left > 2 ? kLetters[group & 63U] : '=';
  }
  return text;
}

}  // namespace

std::string html_text(std::string_view text) {
  return escape_markup(shown(text));
}

std::string content_hash(std::string_view text) {
  std::uint8_t digest[kSha256Size];
  if (!sha256_digest(text, digest)) throw Refusal("the system has no SHA-256 to give");
  return "'sha256-" + base64(digest, sizeof digest) + "'";
}

}  // namespace kova::admin
