#include "wire/wire.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>

namespace kova::wire {
namespace {

using std::string_view_literals::operator""sv;

std::string payload_of(FrameWriter& frame) {
  return std::string(frame.finish().substr(kHeaderSize));
}

TEST(Wire, FramesAreBigEndianWithTheirSizeInFront) {
  FrameWriter frame(Type::kExec);
  frame.u32(0x01020304);
  frame.u16(0x0506);
  frame.u8(0x07);
  EXPECT_EQ(frame.finish(), "\0\0\0\7\2\1\2\3\4\5\6\7"sv);
}

TEST(Wire, TextsAreCountedAndTerminated) {
  FrameWriter frame(Type::kRows);
  frame.text("a\0b"sv);
  frame.text("");
  frame.null_text();
  EXPECT_EQ(payload_of(frame), "\0\0\0\3a\0b\0\0\0\0\0\0\xFF\xFF\xFF\xFF"sv);
}

TEST(Wire, HeadersAreDecoded) {
  const char bytes[kHeaderSize] = {0, 1, '\x80', 2, '\x82'};
  const Header header = decode_header(bytes);
  EXPECT_EQ(header.size, 0x18002U);
  EXPECT_EQ(header.type, Type::kOutcome);
}

TEST(Wire, WhatIsWrittenIsRead) {
  FrameWriter frame(Type::kOutcome);
  frame.u8(255);
  frame.u16(65535);
  frame.u32(4294967295U);
  frame.text("text");
  frame.null_text();
  const std::string payload = payload_of(frame);
  PayloadReader reader(payload);
  EXPECT_EQ(reader.u8(), 255);
  EXPECT_EQ(reader.u16(), 65535);
  EXPECT_EQ(reader.u32(), 4294967295U);
  EXPECT_EQ(reader.text(), "text");
  EXPECT_THROW(reader.expect_end(), Malformed);
  EXPECT_EQ(reader.nullable_text().data(), nullptr);
  reader.expect_end();
}

TEST(Wire, ShorterThanANumberIsRefused) {
  const std::string payload = "\1\2\3";
  EXPECT_THROW(static_cast<void>(PayloadReader(payload).u32()), Malformed);
  EXPECT_THROW(static_cast<void>(PayloadReader(payload.substr(0, 1)).u16()), Malformed);
  EXPECT_THROW(static_cast<void>(PayloadReader({}).u8()), Malformed);
}

TEST(Wire, MalformedTextsAreRefused) {
  const auto text = [](std::string_view payload) {
    return std::string(PayloadReader(payload).text());
  };
  EXPECT_THROW(text("\0\0\0\1"sv), Malformed) << "no bytes";
  EXPECT_THROW(text("\0\0\0\1a"sv), Malformed) << "no terminator";
  EXPECT_THROW(text("\0\0\0\1ab"sv), Malformed) << "another byte in its place";
  EXPECT_THROW(text("\0\0\0\0"sv), Malformed) << "an empty text has one too";
  EXPECT_THROW(text("\xFF\xFF\xFF\xFE\0"sv), Malformed) << "longer than any payload";
  EXPECT_THROW(text("\xFF\xFF\xFF\xFF"sv), Malformed) << "a null where none may be";
  EXPECT_EQ(text("\0\0\0\1a\0"sv), "a");
}

TEST(Wire, NumbersCanBeReplacedAndPayloadsTakenBack) {
  FrameWriter frame(Type::kRows);
  frame.u16(0);
  frame.u8(9);
  frame.set_u16(0, 0x0102);
  const std::size_t before = frame.payload_size();
  frame.text("gone");
  frame.shrink(before);
  EXPECT_EQ(payload_of(frame), "\1\2\x09"sv);
}

TEST(Wire, AWipedFrameHoldsZeros) {
  FrameWriter frame(Type::kExec);
  frame.text("login user,secret;");
  const std::string_view bytes = frame.finish();
  frame.wipe();
  EXPECT_EQ(bytes.find_first_not_of('\0'), std::string_view::npos);
}

}  // namespace
}  // namespace kova::wire
