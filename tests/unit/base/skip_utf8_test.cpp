// UTF-8 inside long strings, where whole blocks are judged at once: each sequence at each place of
// a block, against a decoder that knows nothing of blocks.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "json/json.h"
#include "support/guard_page.h"

namespace kova {
namespace {

using testing::GuardedText;

// Before the sequence stand as many bytes as bring it to every place of a block, twice over.
constexpr std::size_t kPlaces = 34;
constexpr std::size_t kSize = 80;

int length_of(unsigned char lead) {
  if (lead < 0x80) return 1;
  if ((lead & 0xE0) == 0xC0) return 2;
  if ((lead & 0xF0) == 0xE0) return 3;
  return (lead & 0xF8) == 0xF0 ? 4 : 0;
}

bool is_utf8(std::string_view text) {
  static constexpr std::uint32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const auto length = static_cast<std::size_t>(length_of(lead));
    if (length == 0 || text.size() - i < length) return false;
    std::uint32_t code = length == 1 ? lead : lead & (0xFFU >> (length + 1));
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = code << 6 | (next & 0x3FU);
    }
    if (code < kMinimum[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
      return false;
    i += length;
  }
  return true;
}

/// A string of a JSON text at the edge of an unreadable page, of which a part may be changed.
class LongString {
 public:
  explicit LongString(std::string_view filler, std::size_t size = kSize)
      : text_(quoted(filler, size)) {}

  /// Whether the string parses with these bytes at this place in it.
  [[nodiscard]] bool parses_with(std::size_t place, std::string_view bytes) {
    char kept[8];
    char* const target = text_.data() + 1 + place;
    std::memcpy(kept, target, bytes.size());
    std::memcpy(target, bytes.data(), bytes.size());
    JsonToken tokens[1];
    JsonDoc doc;
    const bool parsed = json_parse(text_.view(), tokens, 1, doc);
    EXPECT_EQ(parsed, is_utf8(contents())) << contents();
    std::memcpy(target, kept, bytes.size());
    return parsed;
  }

 private:
  static std::string quoted(std::string_view filler, std::size_t size) {
    std::string text = "\"";
    while (text.size() + filler.size() <= size) text += filler;
    return text.append(size - text.size() + 1, 'a') + '"';
  }
  [[nodiscard]] std::string_view contents() const {
    return text_.view().substr(1, text_.view().size() - 2);
  }

  GuardedText text_;
};

TEST(Utf8, EverySequenceAtEveryPlaceOfABlock) {
  constexpr unsigned char kSeconds[] = {0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF,
                                        0xC0, 0xC3, 0xDF, 0xE1, 0xED, 0xF1, 0xF4, 0xFF};
  constexpr unsigned char kOthers[] = {0x41, 0x80, 0xBF, 0xC3};
  int parsed = 0;
  for (const std::string_view filler : {"a", "é", "中", "😀", "aé"}) {
    LongString text(filler);
    for (std::size_t place = 0; place < kPlaces; ++place) {
      for (int lead = 0x80; lead <= 0xFF; ++lead) {
        for (const unsigned char second : kSeconds) {
          for (const unsigned char third : kOthers) {
            for (const unsigned char fourth : kOthers) {
              const char bytes[] = {static_cast<char>(lead), static_cast<char>(second),
                                    static_cast<char>(third), static_cast<char>(fourth)};
              parsed += text.parses_with(place, {bytes, sizeof bytes}) ? 1 : 0;
            }
          }
        }
      }
      if (HasFailure()) return;
    }
  }
  EXPECT_GT(parsed, 1000);
}

// Characters cut by the end of the string and by an escape, at every distance from a block's end.
TEST(Utf8, CharactersThatAreCutShort) {
  for (const std::string_view whole : {"é", "中", "😀"}) {
    for (std::size_t before = 0; before < kPlaces; ++before) {
      for (std::size_t cut = 1; cut <= whole.size(); ++cut) {
        for (const std::string_view after : {"\"", "\\n\"", "a\"", "\\n________________\""}) {
          const std::string text = "\"é" + std::string(before, '_') +
                                   std::string(whole.substr(0, cut)) + std::string(after);
          const GuardedText guarded(text);
          JsonToken tokens[1];
          JsonDoc doc;
          EXPECT_EQ(json_parse(guarded.view(), tokens, 1, doc), cut == whole.size()) << text;
        }
      }
    }
  }
}

TEST(Utf8, ControlBytesAmongOtherCharacters) {
  for (const std::string_view filler : {"é", "中", "😀"}) {
    for (std::size_t count = 1; count < kPlaces; ++count) {
      for (const char control : {'\0', '\x01', '\n', '\x1F'}) {
        std::string text = "\"";
        for (std::size_t i = 0; i < count; ++i) text += filler;
        const std::size_t place = text.size();
        for (std::size_t i = 0; i < kPlaces; ++i) text += filler;
        text += '"';
        JsonToken tokens[1];
        JsonDoc doc;
        ASSERT_TRUE(json_parse(text, tokens, 1, doc));
        text.insert(place, 1, control);
        EXPECT_FALSE(json_parse(text, tokens, 1, doc)) << count;
      }
    }
  }
}

}  // namespace
}  // namespace kova
