#include "app/line_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/guard_page.h"

namespace kova {
namespace {

using testing::GuardedBuffer;
using namespace std::string_view_literals;

constexpr std::size_t kPiece = kMessageLimit + 1;

// The input that the source below gives out: in blocks of these sizes in turn, the last one for
// good. A source is a plain function, so its state is here.
struct Input {
  std::string_view rest;
  std::vector<std::size_t> blocks;
  std::size_t next_block = 0;
  std::size_t reads_after_end = 0;
} scripted_input;

std::size_t read_input(char* data, std::size_t size) {
  EXPECT_GT(size, 0U);
  if (scripted_input.rest.empty()) {
    ++scripted_input.reads_after_end;
    return 0;
  }
  const std::size_t block =
      scripted_input.blocks[std::min(scripted_input.next_block, scripted_input.blocks.size() - 1)];
  ++scripted_input.next_block;
  const std::size_t got = std::min({size, block, scripted_input.rest.size()});
  std::memcpy(data, scripted_input.rest.data(), got);
  scripted_input.rest.remove_prefix(got);
  return got;
}

// A reader over a text; its buffer ends at an unreadable page.
class Reader {
 public:
  Reader(std::string_view text, std::vector<std::size_t> blocks, std::size_t limit = kPiece)
      : buffer_(kLineBufferCapacity), lines_(buffer_.data(), read_input, limit) {
    scripted_input = {text, std::move(blocks)};
  }

  LineReader& lines() { return lines_; }

 private:
  GuardedBuffer buffer_;
  LineReader lines_;
};

struct Piece {
  std::string text;
  bool at_end_of_input;
  bool operator==(const Piece&) const = default;
};

std::vector<Piece> read_all(Reader& reader) {
  std::vector<Piece> pieces;
  Line line;
  while (reader.lines().next(line))
    pieces.push_back({std::string(line.text), line.at_end_of_input});
  return pieces;
}

// What a reader of the whole text would cut off, as the rule spells it out.
std::vector<Piece> wanted_pieces(std::string_view text, std::size_t limit = kPiece) {
  std::vector<Piece> pieces;
  while (!text.empty()) {
    const std::size_t feed = text.substr(0, limit).find('\n');
    const bool whole = feed != std::string_view::npos;
    const std::size_t length = whole ? feed + 1 : std::min(text.size(), limit);
    pieces.push_back({std::string(text.substr(0, length)), !whole && length < limit});
    text.remove_prefix(length);
  }
  return pieces;
}

const std::vector<std::vector<std::size_t>> kBlockSizes = {
    {1}, {2}, {3}, {7}, {4096}, {65536}, {1, 2, 3, 5, 8, 13}, {1U << 30}};

TEST(LineReader, SmallInputsInBlocksOfEverySize) {
  const std::string_view texts[] = {
      ""sv,
      "\n"sv,
      "a"sv,
      "a\n"sv,
      "a\nb"sv,
      "a\nb\n"sv,
      "\n\n\n"sv,
      "a\r\nb\r\n"sv,
      "one\ntwo\nthree\nfour"sv,
      "a\0b\nc\0"sv,
      "\0\n\0\n"sv,
      "\r\r\n\n\r"sv,
      "\xef\xbb\xbf{}\n"sv,
      "ends\n\n"sv,
      "no line feed"sv,
      "\nbegins\n"sv,
  };
  for (const std::string_view text : texts) {
    for (const auto& blocks : kBlockSizes) {
      SCOPED_TRACE(::testing::PrintToString(text) + " in blocks of " + std::to_string(blocks[0]));
      Reader reader(text, blocks);
      EXPECT_EQ(read_all(reader), wanted_pieces(text));
    }
  }
}

TEST(LineReader, EveryCutOfATextIntoTwoBlocks) {
  const std::string text = "first line\nsecond\r\n\nlast without";
  for (std::size_t cut = 1; cut < text.size(); ++cut) {
    Reader reader(text, {cut, text.size()});
    EXPECT_EQ(read_all(reader), wanted_pieces(text)) << cut;
  }
}

TEST(LineReader, PiecesAtTheLimit) {
  for (const std::size_t length : {kMessageLimit - 1, kMessageLimit, kMessageLimit + 1,
                                   kMessageLimit + 2, 2 * kPiece, 2 * kPiece + 1}) {
    for (const bool feed : {true, false}) {
      for (const std::vector<std::size_t>& blocks : std::vector<std::vector<std::size_t>>{
               {1U << 30}, {65536}, {kPiece}, {kPiece - 1, 1}, {4097}}) {
        SCOPED_TRACE(std::to_string(length) + (feed ? " and a line feed" : "") + " in blocks of " +
                     std::to_string(blocks[0]));
        const std::string text = std::string(length, 'x') + (feed ? "\nnext\n" : "");
        Reader reader(text, blocks);
        const std::vector<Piece> seen = read_all(reader);
        const std::vector<Piece> wanted = wanted_pieces(text);
        ASSERT_EQ(seen.size(), wanted.size());
        for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_TRUE(seen[i] == wanted[i]) << i;
      }
    }
  }
}

TEST(LineReader, ASmallerPieceIsCutAtItsOwnLimit) {
  constexpr std::size_t kLimit = 127;
  for (const std::size_t length : {kLimit - 2, kLimit - 1, kLimit, kLimit + 1, 2 * kLimit}) {
    for (const std::string_view end : {"", "\n", "\nnext"}) {
      for (const auto& blocks : kBlockSizes) {
        SCOPED_TRACE(std::to_string(length) + ::testing::PrintToString(end) + " in blocks of " +
                     std::to_string(blocks[0]));
        const std::string text = std::string(length, 'x') + std::string(end);
        Reader reader(text, blocks, kLimit);
        EXPECT_EQ(read_all(reader), wanted_pieces(text, kLimit));
      }
    }
  }
}

TEST(LineReader, AFullPieceIsNotWaitedBeyond) {
  constexpr std::size_t kLimit = 127;
  for (const std::size_t length : {kLimit, kLimit + 1}) {
    const std::string text(length, 'x');
    Reader reader(text, {length}, kLimit);
    Line line;
    ASSERT_TRUE(reader.lines().next(line));
    EXPECT_EQ(line.text.size(), kLimit);
    EXPECT_FALSE(line.at_end_of_input);
    EXPECT_EQ(scripted_input.next_block, 1U);
    EXPECT_EQ(scripted_input.reads_after_end, 0U);
  }
  const std::string text(kLimit - 1, 'x');
  Reader reader(text, {kLimit - 1}, kLimit);
  Line line;
  ASSERT_TRUE(reader.lines().next(line));
  EXPECT_TRUE(line.at_end_of_input);
  EXPECT_EQ(scripted_input.reads_after_end, 1U);
}

TEST(LineReader, TheEndOfInputIsWhatAReadMet) {
  // A full piece ends a read before the end of input is met.
  const std::string full(kPiece, 'x');
  Reader exact(full, {1U << 30});
  Line line;
  ASSERT_TRUE(exact.lines().next(line));
  EXPECT_EQ(line.text.size(), kPiece);
  EXPECT_FALSE(line.at_end_of_input);
  EXPECT_FALSE(exact.lines().next(line));
  const std::string shorter(kMessageLimit, 'x');
  Reader accepted(shorter, {1U << 30});
  ASSERT_TRUE(accepted.lines().next(line));
  EXPECT_EQ(line.text.size(), kMessageLimit);
  EXPECT_TRUE(line.at_end_of_input);
  EXPECT_FALSE(accepted.lines().next(line));
  Reader with_feed("x\n", {1U << 30});
  ASSERT_TRUE(with_feed.lines().next(line));
  EXPECT_FALSE(line.at_end_of_input);
  EXPECT_FALSE(with_feed.lines().next(line));
}

TEST(LineReader, AnswersFalseAgainAndAgainAtTheEnd) {
  Reader reader("x\n", {100});
  Line line;
  EXPECT_TRUE(reader.lines().next(line));
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(reader.lines().next(line));
  reader.lines().discard_line();
  EXPECT_FALSE(reader.lines().next(line));
}

TEST(LineReader, DoesNotWaitForMoreThanALine) {
  // The second read would block for good on a terminal: the line is there after the first.
  Reader reader("first\nrest", {6, 4});
  Line line;
  ASSERT_TRUE(reader.lines().next(line));
  EXPECT_EQ(line.text, "first\n");
  EXPECT_EQ(scripted_input.next_block, 1U);
}

TEST(LineReader, DiscardsToTheNextLineFeed) {
  for (const auto& blocks : kBlockSizes) {
    SCOPED_TRACE(blocks[0]);
    Reader reader("one\ntwo\n\nfour\nfive", blocks);
    Line line;
    ASSERT_TRUE(reader.lines().next(line));
    EXPECT_EQ(line.text, "one\n");
    reader.lines().discard_line();
    reader.lines().discard_line();
    ASSERT_TRUE(reader.lines().next(line));
    EXPECT_EQ(line.text, "four\n");
    reader.lines().discard_line();
    EXPECT_FALSE(reader.lines().next(line));
  }
}

TEST(LineReader, DiscardsTheRestOfALongLineAcrossBlocks) {
  for (const std::size_t rest :
       {std::size_t{1}, std::size_t{4095}, kPiece - 1, kPiece, kPiece + 1, 3 * kPiece}) {
    for (const std::vector<std::size_t>& blocks :
         std::vector<std::vector<std::size_t>>{{1U << 30}, {65536}, {4093}, {kPiece, 1}}) {
      SCOPED_TRACE(std::to_string(rest) + " in blocks of " + std::to_string(blocks[0]));
      const std::string text = std::string(kPiece, 'x') + std::string(rest, 'y') + "\nnext\nlast";
      Reader reader(text, blocks);
      Line line;
      ASSERT_TRUE(reader.lines().next(line));
      EXPECT_EQ(line.text.size(), kPiece);
      EXPECT_FALSE(line.at_end_of_input);
      reader.lines().discard_line();
      ASSERT_TRUE(reader.lines().next(line));
      EXPECT_EQ(line.text, "next\n");
      ASSERT_TRUE(reader.lines().next(line));
      EXPECT_EQ(line.text, "last");
      EXPECT_TRUE(line.at_end_of_input);
      EXPECT_FALSE(reader.lines().next(line));
    }
  }
}

TEST(LineReader, ALineFeedRightAfterAFullPieceIsDiscarded) {
  const std::string text = std::string(kPiece, 'x') + "\nnext\n";
  Reader reader(text, {1U << 30});
  Line line;
  ASSERT_TRUE(reader.lines().next(line));
  reader.lines().discard_line();
  ASSERT_TRUE(reader.lines().next(line));
  EXPECT_EQ(line.text, "next\n");
}

// Thousands of lines around one long one, in blocks that never fit: the unread rest moves without
// being lost.
TEST(LineReader, ManyLines) {
  std::string text;
  for (int i = 0; i < 5000; ++i) text += "line " + std::to_string(i) + "\n";
  text += std::string(kMessageLimit, 'x') + "\n";
  for (int i = 0; i < 5000; ++i) text += std::string(static_cast<std::size_t>(i % 50), 'y') + "\n";
  for (const std::vector<std::size_t>& blocks :
       std::vector<std::vector<std::size_t>>{{1U << 30}, {65536}, {1021}, {1, 65535}}) {
    SCOPED_TRACE(blocks[0]);
    Reader reader(text, blocks);
    const std::vector<Piece> seen = read_all(reader);
    EXPECT_TRUE(seen == wanted_pieces(text));
  }
}

TEST(CutAtNul, Table) {
  const struct {
    std::string_view line, cut;
  } rows[] = {
      {""sv, ""sv},        {"abc\n"sv, "abc\n"sv}, {"\0"sv, ""sv},       {"\0abc\n"sv, ""sv},
      {"a\0b\n"sv, "a"sv}, {"abc\0"sv, "abc"sv},   {"a\n\0"sv, "a\n"sv}, {"a\0b\0c"sv, "a"sv},
  };
  for (const auto& row : rows) {
    const testing::GuardedText text(row.line);
    EXPECT_EQ(cut_at_nul(text.view()), row.cut) << ::testing::PrintToString(row.line);
  }
}

TEST(StripLineEnd, Table) {
  const struct {
    std::string_view line, stripped;
  } rows[] = {
      {"", ""},         {"\n", ""},         {"\r\n", ""},           {"\n\r\r\n\n", ""},
      {"a\n", "a"},     {"a\r\n", "a"},     {"a\r", "a"},           {"a\r\r\n", "a"},
      {"a", "a"},       {"a \n", "a "},     {"\r\na\r\n", "\r\na"}, {"a\rb\n", "a\rb"},
      {"a\t\n", "a\t"}, {"\n\na", "\n\na"},
  };
  for (const auto& row : rows) {
    const testing::GuardedText text(row.line);
    EXPECT_EQ(strip_line_end(text.view()), row.stripped) << ::testing::PrintToString(row.line);
  }
}

}  // namespace
}  // namespace kova
