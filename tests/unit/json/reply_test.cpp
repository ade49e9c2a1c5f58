#include "json/reply.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "json/output_lock.h"
#include "support/captured_output.h"
#include "support/guard_page.h"
#include "unit/json/parsed_text.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::GuardedText;
using testing::GuardSide;
using testing::ParsedText;
using namespace std::string_literals;
using namespace std::string_view_literals;

// The literal of a text as the rule spells it out, one byte at a time.
std::string literal(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    switch (byte) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case 0x08:
        out += "\\b";
        break;
      case 0x0C:
        out += "\\f";
        break;
      case 0x0A:
        out += "\\n";
        break;
      case 0x0D:
        out += "\\r";
        break;
      case 0x09:
        out += "\\t";
        break;
      default:
        if (byte < 0x20) {
          char escape[8];
          std::snprintf(escape, sizeof escape, "\\u%04x", byte);
          out += escape;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

/// What every line begins with.
const std::string kOpener = R"({"jsonrpc":"2.0","id":)";
/// The same with the id of no request.
const std::string kNoId = kOpener + "null";

/// A line without its opener, of which nothing may be missing.
std::string without(const std::string& opener, std::string line) {
  EXPECT_TRUE(line.starts_with(opener)) << line.substr(0, 100);
  return line.substr(std::min(opener.size(), line.size()));
}

std::string string_line(std::string_view text, GuardSide side = GuardSide::kAfter) {
  const GuardedText guarded(text, side);
  CapturedOutput output;
  ReplyLine({}).string(guarded.view());
  return without(kNoId, output.take());
}

TEST(ReplyLine, EveryByteInAString) {
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    const std::string text = "a" + std::string(1, static_cast<char>(value)) + "z";
    EXPECT_EQ(string_line(text), literal(text) + "\n");
  }
}

TEST(ReplyLine, EscapesSpelledOut) {
  const struct {
    std::string_view text, line;
  } rows[] = {
      {"", "\"\"\n"},
      {"/", "\"/\"\n"},
      {"\"", "\"\\\"\"\n"},
      {"\\", "\"\\\\\"\n"},
      {"\b\f\n\r\t", "\"\\b\\f\\n\\r\\t\"\n"},
      {"\0"sv, "\"\\u0000\"\n"},
      {"\x01", "\"\\u0001\"\n"},
      {"\x0b", "\"\\u000b\"\n"},
      {"\x1f", "\"\\u001f\"\n"},
      {"\x7f", "\"\x7f\"\n"},
      {"line\nfeed", "\"line\\nfeed\"\n"},
      {"\xc3\xa9\xf0\x9f\x98\x80", "\"\xc3\xa9\xf0\x9f\x98\x80\"\n"},
      {"\x80\xff", "\"\x80\xff\"\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(string_line(row.text), row.line);
    EXPECT_EQ(string_line(row.text, GuardSide::kBefore), row.line);
  }
}

TEST(ReplyLine, SpecialBytesAtEveryOffsetOfARun) {
  for (std::size_t run = 0; run <= 70; ++run) {
    SCOPED_TRACE(run);
    const std::string plain(run, 'p');
    for (const std::string_view special : {"\""sv, "\\"sv, "\n"sv, "\0"sv, "\x1f"sv, "\x80"sv}) {
      const std::string text = plain + std::string(special) + plain;
      EXPECT_EQ(string_line(text), literal(text) + "\n");
      EXPECT_EQ(string_line(plain + std::string(special)),
                literal(plain + std::string(special)) + "\n");
    }
  }
}

TEST(ReplyLine, TextsLongerThanAnyBuffer) {
  std::string mixed;
  for (int i = 0; mixed.size() < 300000; ++i) {
    mixed += static_cast<char>(i % 256);
    mixed.append(static_cast<std::size_t>(i % 97), 'r');
  }
  EXPECT_EQ(string_line(mixed), literal(mixed) + "\n");
  const std::string plain(1048576, 'x');
  EXPECT_EQ(string_line(plain), literal(plain) + "\n");
  const std::string escapes(200000, '\x01');
  EXPECT_EQ(string_line(escapes), literal(escapes) + "\n");
}

// Every length around a buffer's end, where a piece or an escape may be cut.
TEST(ReplyLine, LengthsAroundTheBuffer) {
  for (std::size_t length = 65536 - 24; length <= 65536 + 24; ++length) {
    SCOPED_TRACE(length);
    const std::string raw(length - kNoId.size(), 'r');
    CapturedOutput output;
    ReplyLine({}).raw(raw);
    EXPECT_EQ(without(kNoId, output.take()), raw + "\n");
    ReplyLine({}).raw(raw).string("\x01\"\n");
    EXPECT_EQ(without(kNoId, output.take()), raw + "\"\\u0001\\\"\\n\"\n");
    ReplyLine({}).raw(raw).number(-9223372036854775807LL - 1).raw("end");
    EXPECT_EQ(without(kNoId, output.take()), raw + "-9223372036854775808end\n");
    ReplyLine({}).string(raw).string("");
    EXPECT_EQ(without(kNoId, output.take()), "\"" + raw + "\"\"\"\n");
  }
}

TEST(ReplyLine, RawAndNumbers) {
  CapturedOutput output;
  ReplyLine({})
      .raw("{\"a\":")
      .number(0)
      .raw(",")
      .number(-32700)
      .raw(",")
      .number(4294967295LL)
      .raw("}");
  EXPECT_EQ(output.take(), kNoId + "{\"a\":0,-32700,4294967295}\n");
  ReplyLine({}).raw("");
  EXPECT_EQ(output.take(), kNoId + "\n");
}

TEST(ReplyLine, NothingIsWrittenBeforeTheLineEnds) {
  CapturedOutput output;
  {
    ReplyLine line({});
    line.raw("short");
    EXPECT_EQ(output.take(), "");
  }
  EXPECT_EQ(output.take(), kNoId + "short\n");
}

// A pipe takes so much at once.
TEST(ReplyLine, UpTo65536BytesAreOneWrite) {
  const std::string raw(65535 - kNoId.size(), 'r');
  CapturedOutput output;
  {
    ReplyLine line({});
    line.raw(raw).raw("y");
    EXPECT_EQ(output.take(), "");
    line.raw("z");
    EXPECT_EQ(output.take(), kNoId + raw + "y");
  }
  EXPECT_EQ(output.take(), "z\n");
}

// --- ids --------------------------------------------------------------------------------------

std::string id_line(std::string_view source) {
  const ParsedText parsed(source);
  EXPECT_TRUE(parsed.ok()) << source;
  CapturedOutput output;
  ReplyLine({.doc = &parsed.doc(), .token = 0}).raw("");
  return without(kOpener, output.take());
}

TEST(ReplyLine, Ids) {
  const std::string long_number(500, '7');
  const struct {
    std::string source, echoed;
  } rows[] = {
      {"7", "7"},
      {"-0.50e+10", "-0.50e+10"},
      {"true", "true"},
      {"false", "false"},
      {"null", "null"},
      {"\"7\"", "\"7\""},
      {"\"\"", "\"\""},
      {"\"null\"", "\"null\""},
      {R"("\u0041")", "\"A\""},
      {R"("\/\n\u0001\u001F")", R"("/\n\u0001\u001f")"},
      {R"("\u00e9\ud83d\ude00")", "\"\xc3\xa9\xf0\x9f\x98\x80\""},
      {R"("\ud800")", "null"},
      {R"("a\u0000b")", "\"a\""},
      {"[1, {\"a\" : \"\\u0041\"}]", "[1, {\"a\" : \"\\u0041\"}]"},
      {"{ }", "{ }"},
      {long_number, long_number},
      {"\"" + std::string(95, 'x') + "\"", "\"" + std::string(95, 'x') + "\""},
      {"\"" + std::string(96, 'x') + "\"", "null"},
      {"\"" + std::string(93, 'x') + "\\u00e9\"", "\"" + std::string(93, 'x') + "\xc3\xa9\""},
      {"\"" + std::string(94, 'x') + "\\u00e9\"", "null"},
      {"\"" + std::string(5000, 'x') + "\"", "null"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.source);
    EXPECT_EQ(id_line(row.source), row.echoed + "\n");
  }
}

TEST(ReplyLine, AnIdOfNinetyFiveEscapedBytes) {
  std::string source = "\"";
  for (int i = 0; i < 95; ++i) source += "\\u0042";
  EXPECT_EQ(id_line(source + "\""), "\"" + std::string(95, 'B') + "\"\n");
  EXPECT_EQ(id_line(source + "\\u0042\""), "null\n");
}

TEST(ReplyLine, NoIdIsNull) {
  CapturedOutput output;
  ReplyLine({}).raw("");
  EXPECT_EQ(output.take(), kNoId + "\n");
  const ParsedText parsed("[1,2]");
  ASSERT_TRUE(parsed.ok());
  const RequestId none[] = {
      {.doc = &parsed.doc()}, {.doc = &parsed.doc(), .token = -1}, {.token = 0}, {.token = 1}};
  for (const RequestId& id : none) {
    ReplyLine(id).raw("");
    EXPECT_EQ(output.take(), kNoId + "\n");
  }
}

TEST(ReplyLine, AnIdWhoseDocumentIsGoneStandsAsItIs) {
  CapturedOutput output;
  ReplyLine({.raw = R"("a\u0041")"}).raw("");
  EXPECT_EQ(output.take(), kOpener + R"("a\u0041")" + "\n");
}

TEST(ReplyLine, AnIdWithinItsMessage) {
  const ParsedText parsed(R"({"method":"x","id":"a\u0041b","params":{}})");
  ASSERT_TRUE(parsed.ok());
  CapturedOutput output;
  ReplyLine({.doc = &parsed.doc(), .token = json_find(parsed.doc(), 0, "id")}).raw("");
  EXPECT_EQ(output.take(), kOpener + "\"aAb\"\n");
}

// --- envelopes --------------------------------------------------------------------------------

TEST(ErrorReply, EveryCode) {
  const struct {
    int code;
    std::string_view text;
  } rows[] = {{kParseError, "-32700"},     {kInvalidRequest, "-32600"},
              {kMethodNotFound, "-32601"}, {kInvalidParams, "-32602"},
              {kInternalError, "-32603"},  {kNotInitialized, "-32002"},
              {kBusy, "-32000"},           {0, "0"}};
  for (const auto& row : rows) {
    CapturedOutput output;
    write_error_reply({}, row.code, "some message");
    EXPECT_EQ(output.take(), "{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":" +
                                 std::string(row.text) + ",\"message\":\"some message\"}}\n");
  }
}

TEST(ErrorReply, EscapesTheMessageAndEchoesTheId) {
  const ParsedText parsed(R"("i\u0064\n")");
  ASSERT_TRUE(parsed.ok());
  CapturedOutput output;
  write_error_reply({&parsed.doc(), 0}, kInvalidRequest, "a\nb\x01\"\\ \xc3\xa9");
  EXPECT_EQ(output.take(),
            "{\"jsonrpc\":\"2.0\",\"id\":\"id\\n\",\"error\":{\"code\":-32600,"
            "\"message\":\"a\\nb\\u0001\\\"\\\\ \xc3\xa9\"}}\n");
}

TEST(ErrorReply, ServerMemoryLimitText) {
  EXPECT_STREQ(kServerMemoryLimit, "server memory limit");
}

// --- tool results -----------------------------------------------------------------------------

TEST(ToolFailure, CarriesItsMessage) {
  const ParsedText parsed(R"("a\nb")");
  const RequestId id{.doc = &parsed.doc(), .token = 0};
  CapturedOutput output;
  write_tool_failure(id, "not \"this\"\n");
  EXPECT_EQ(output.take(),
            "{\"jsonrpc\":\"2.0\",\"id\":\"a\\nb\",\"result\":{\"content\":[{\"type\":\"text\","
            "\"text\":\"not \\\"this\\\"\\n\"}],\"isError\":true}}\n");
  write_tool_failure(id, "");
  EXPECT_EQ(output.take(),
            "{\"jsonrpc\":\"2.0\",\"id\":\"a\\nb\",\"result\":{\"content\":[{\"type\":\"text\","
            "\"text\":\"\"}],\"isError\":true}}\n");
}

TEST(ToolFailure, MayCarryStructuredContent) {
  CapturedOutput output;
  write_tool_failure({.raw = "7"}, "no", R"({"why":"\u0041"})");
  EXPECT_EQ(
      output.take(),
      "{\"jsonrpc\":\"2.0\",\"id\":7,\"result\":{\"content\":[{\"type\":\"text\",\"text\":\"no\"}],"
      "\"structuredContent\":{\"why\":\"\\u0041\"},\"isError\":true}}\n");
}

TEST(ToolSuccess, CarriesItsJsonTwice) {
  const ParsedText parsed(R"("a\nb")");
  CapturedOutput output;
  write_tool_success({.doc = &parsed.doc(), .token = 0}, R"({"a":"\\\b\u0001é"})");
  EXPECT_EQ(output.take(),
            "{\"jsonrpc\":\"2.0\",\"id\":\"a\\nb\",\"result\":{\"content\":[{\"type\":\"text\","
            "\"text\":\"{\\\"a\\\":\\\"\\\\\\\\\\\\b\\\\u0001\xC3\xA9\\\"}\"}],"
            "\"structuredContent\":{\"a\":\"\\\\\\b\\u0001\xC3\xA9\"},\"isError\":false}}\n");
}

// --- two writers ------------------------------------------------------------------------------

TEST(ReplyLine, ConcurrentLinesNeverInterleave) {
  constexpr int kLines = 120;
  // Short lines, lines of one write, and lines that take several writes.
  const std::array<std::size_t, 3> lengths = {3, 40000, 150000};
  CapturedOutput output;
  const auto write_lines = [&lengths](char mark) {
    for (int i = 0; i < kLines; ++i) {
      const std::string text(lengths[static_cast<std::size_t>(i) % lengths.size()], mark);
      ReplyLine({}).raw("<").string(text).number(i).raw(">");
    }
  };
  std::thread other(write_lines, 'b');
  write_lines('a');
  other.join();
  std::array<int, 2> seen = {0, 0};
  const std::string written = output.take();
  std::string_view rest = written;
  while (!rest.empty()) {
    ASSERT_TRUE(rest.starts_with(kNoId));
    rest.remove_prefix(kNoId.size());
    const std::size_t end = rest.find('\n');
    ASSERT_NE(end, std::string_view::npos);
    ASSERT_GE(end, 3U);
    const char mark = rest[2];
    ASSERT_TRUE(mark == 'a' || mark == 'b');
    int& number = seen[mark == 'a' ? 0 : 1];
    const std::size_t length = lengths[static_cast<std::size_t>(number) % lengths.size()];
    const std::string wanted =
        "<\"" + std::string(length, mark) + "\"" + std::to_string(number) + ">";
    ASSERT_TRUE(rest.substr(0, end) == wanted) << "line " << number << " of " << mark;
    ++number;
    rest.remove_prefix(end + 1);
  }
  EXPECT_EQ(seen[0], kLines);
  EXPECT_EQ(seen[1], kLines);
}

TEST(OutputLock, IsHeldForTheLifeOfALine) {
  CapturedOutput output;
  std::thread other;
  {
    ReplyLine line({});
    line.raw("first");
    other = std::thread([] { ReplyLine({}).raw("second"); });
    // The other line cannot come between these two, however long this one takes.
    for (int i = 0; i < 100; ++i) yield_thread();
    EXPECT_EQ(output.take(), "");
    line.raw(" line");
  }
  other.join();
  EXPECT_EQ(output.take(), kNoId + "first line\n" + kNoId + "second\n");
}

TEST(OutputLock, IsFreeAfterALine) {
  CapturedOutput output;
  ReplyLine({}).raw("x");
  { const SpinGuard guard(OutputLock); }
  ReplyLine({}).raw("y");
  EXPECT_EQ(output.take(), kNoId + "x\n" + kNoId + "y\n");
}

}  // namespace
}  // namespace kova
