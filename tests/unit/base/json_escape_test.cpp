#include "base/json_escape.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "support/guard_page.h"

namespace kova {
namespace {

using testing::GuardedBuffer;
using testing::GuardedText;
using testing::GuardSide;

// The rule spelled out, one byte at a time.
std::string escape_of(EscapeStyle style, char c) {
  const auto byte = static_cast<unsigned char>(c);
  const bool is_short = style == EscapeStyle::kShort;
  switch (byte) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    case '\b':
      return is_short ? "\\b" : "\\u0008";
    case '\f':
      return is_short ? "\\f" : "\\u000c";
    default:
      break;
  }
  if (byte >= 0x20) return std::string(1, c);
  char text[8];
  std::snprintf(text, sizeof text, "\\u%04x", byte);
  return text;
}

std::string escaped(EscapeStyle style, std::string_view text) {
  std::string out;
  for (const char c : text) out += escape_of(style, c);
  return out;
}

// Escapes in steps, each into a buffer of this size that ends at an unreadable page.
std::string in_steps(EscapeStyle style, std::string_view text, std::size_t room) {
  const GuardedText source(text);
  const GuardedBuffer target(room);
  const char* const end = source.data() + text.size();
  std::string out;
  for (const char* p = source.data(); p != end;) {
    const EscapeProgress step =
        escape_json(style, p, end, target.data(), target.data() + target.size());
    const auto written = static_cast<std::size_t>(step.target - target.data());
    out.append(target.data(), written);
    EXPECT_TRUE(step.source == end || room - written < kEscapeSpaceMinimum) << "it stopped early";
    if (step.source == p) return out + " and no step was made";
    p = step.source;
  }
  return out;
}

constexpr EscapeStyle kStyles[] = {EscapeStyle::kShort, EscapeStyle::kNumeric};

TEST(WriteEscape, EveryByteThatNeedsOne) {
  for (const EscapeStyle style : kStyles) {
    for (int value = 0; value < 256; ++value) {
      const char byte = static_cast<char>(value);
      const std::string wanted = escape_of(style, byte);
      if (wanted.size() == 1) continue;
      const GuardedBuffer target(kEscapeLimit);
      const std::size_t length = write_escape(style, byte, target.data());
      EXPECT_EQ(std::string(target.data(), length), wanted) << value;
    }
  }
}

TEST(EscapeJson, EveryByteAtEveryOffset) {
  for (const EscapeStyle style : kStyles) {
    for (std::size_t run = 0; run <= 34; ++run) {
      for (int value = 0; value < 256; ++value) {
        const std::string text =
            std::string(run, 'p') + static_cast<char>(value) + std::string(run % 19, 'q');
        ASSERT_EQ(in_steps(style, text, 512), escaped(style, text)) << value << " after " << run;
      }
    }
  }
}

TEST(EscapeJson, RoomsOfEverySize) {
  std::string text;
  for (int i = 0; i < 300; ++i) {
    text += static_cast<char>(i * 7 % 256);
    text.append(static_cast<std::size_t>(i % 23), 'r');
  }
  text += "\x01\x02\x03\"\"\"\\\\\\";
  for (const EscapeStyle style : kStyles) {
    const std::string wanted = escaped(style, text);
    for (std::size_t room = kEscapeSpaceMinimum; room <= 3 * kEscapeSpaceMinimum; ++room) {
      ASSERT_EQ(in_steps(style, text, room), wanted) << room;
    }
  }
}

TEST(EscapeJson, WithoutRoomNothingIsTaken) {
  const GuardedText source("abc");
  for (std::size_t room = 0; room < kEscapeSpaceMinimum; ++room) {
    const GuardedBuffer target(room);
    const EscapeProgress step = escape_json(EscapeStyle::kShort, source.data(), source.data() + 3,
                                            target.data(), target.data() + room);
    EXPECT_EQ(step.source, source.data());
    EXPECT_EQ(step.target, target.data());
  }
}

TEST(EscapeJson, AnEmptyText) {
  const GuardedText source("");
  const GuardedBuffer target(kEscapeSpaceMinimum);
  const EscapeProgress step = escape_json(EscapeStyle::kShort, source.data(), source.data(),
                                          target.data(), target.data() + kEscapeSpaceMinimum);
  EXPECT_EQ(step.source, source.data());
  EXPECT_EQ(step.target, target.data());
}

TEST(EscapeJson, ReadsNothingBeforeTheText) {
  const GuardedText source("\x01plain text of some length\"", GuardSide::kBefore);
  const GuardedBuffer target(256);
  const EscapeProgress step =
      escape_json(EscapeStyle::kShort, source.data(), source.data() + source.view().size(),
                  target.data(), target.data() + 256);
  EXPECT_EQ(std::string(target.data(), static_cast<std::size_t>(step.target - target.data())),
            "\\u0001plain text of some length\\\"");
}

}  // namespace
}  // namespace kova
