// Seals, their lines and the line that is kept.
#include "admin/audit/seals.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "admin/audit/content_digests.h"

namespace kova::admin {
namespace {

std::string lines_from(int first, int last) {
  std::string text;
  for (int i = first; i <= last; ++i) text += "line " + std::to_string(i) + "\r\n";
  return text;
}

TEST(ContentDigests, AreThoseOfTheBlocksHoweverTheyCome) {
  const std::string first = lines_from(1, 1000);
  const std::string second = lines_from(1001, 2000);
  const std::string third = lines_from(2001, 2003) + "no end";
  const std::string all = first + second + third;
  for (const std::size_t step : {std::size_t{1}, std::size_t{7}, std::size_t{4096}, all.size()}) {
    ContentDigests digests;
    for (std::size_t i = 0; i < all.size(); i += step) {
      digests.add(std::string_view(all).substr(i, step));
    }
    digests.finish();
    EXPECT_EQ(digests.whole(), line_digest(all));
    EXPECT_EQ(digests.lines(), 2004U);
    EXPECT_EQ(digests.blocks(), (std::vector<std::string>{line_digest(first), line_digest(second),
                                                          line_digest(third)}));
  }
}

TEST(ContentDigests, OfNothingAreThatOfTheEmptyWhole) {
  ContentDigests digests;
  digests.finish();
  EXPECT_EQ(digests.whole(), line_digest(""));
  EXPECT_EQ(digests.lines(), 0U);
  EXPECT_TRUE(digests.blocks().empty());
}

TEST(ContentDigests, EndTheLastBlockWhereTheSealedLinesEnd) {
  ContentDigests digests(1200);
  digests.add(lines_from(1, 2500));
  digests.finish();
  EXPECT_EQ(digests.lines(), 2500U);
  EXPECT_EQ(digests.blocks(), (std::vector<std::string>{line_digest(lines_from(1, 1000)),
                                                        line_digest(lines_from(1001, 1200))}));
}

TEST(Seals, AreWrittenAndRead) {
  const Seal seal{.file = "a\xC3\xA9\n.jsonl",
                  .sha256 = std::string(64, 'a'),
                  .lines = 1001,
                  .first = "2026-11-21T11:45:51.158Z",
                  .last = "2026-11-21T11:45:52.158Z",
                  .blocks = {std::string(64, 'b'), std::string(64, 'c')},
                  .previous = {}};
  const std::string line = seal_line(seal);
  EXPECT_EQ(line, R"({"file":"a\u00e9\n.jsonl","sha256":")" + std::string(64, 'a') +
                      R"(","lines":1001,"first":"2026-11-21T11:45:51.158Z",)"
                      R"("last":"2026-11-21T11:45:52.158Z","blocks":[")" +
                      std::string(64, 'b') + "\",\"" + std::string(64, 'c') +
                      R"("],"previous":null})");
  const auto read = parse_seal(line);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->file, seal.file);
  EXPECT_EQ(read->lines, seal.lines);
  EXPECT_EQ(read->blocks, seal.blocks);
  EXPECT_EQ(read->previous, std::nullopt);
  EXPECT_EQ(seal_line(*read), line);
}

TEST(Seals, OfAnotherFormAreNone) {
  EXPECT_FALSE(parse_seal(""));
  EXPECT_FALSE(parse_seal("{}"));
  EXPECT_FALSE(parse_seal("[1]"));
  const std::string digest(64, 'a');
  const std::string good = R"({"file":"f","sha256":")" + digest +
                           R"(","lines":0,"first":null,"last":null,"blocks":[],"previous":null})";
  EXPECT_TRUE(parse_seal(good));
  struct Row {
    std::string from;
    std::string to;
    const char* wrong;
  };
  for (const Row& row :
       std::vector<Row>{{"\"lines\":0", "\"lines\":-1", "lines"},
                        {"\"lines\":0", "\"lines\":1", "blocks"},
                        {"\"lines\":0", "\"lines\":18446744073709551615", "blocks"},
                        {"\"blocks\":[]", "\"blocks\":[\"x\"]", "blocks"},
                        {"\"previous\":null", "\"previous\":\"x\"", "previous"},
                        {"\"file\":\"f\"", "\"file\":1", "file"},
                        {"\"aaaa", "\"aaaax", "sha256"}}) {
    std::string bad = good;
    bad.replace(bad.find(row.from), row.from.size(), row.to);
    std::size_t column = 0;
    EXPECT_FALSE(parse_seal(bad, &column)) << bad;
    EXPECT_EQ(column, bad.find('"' + std::string(row.wrong) + '"') + 1) << bad;
  }
}

TEST(Seals, StopWhereTheirEndIsMissing) {
  const Seal seal{.file = "f",
                  .sha256 = std::string(64, 'a'),
                  .lines = 0,
                  .first = {},
                  .last = {},
                  .blocks = {},
                  .previous = {}};
  const std::string line = seal_line(seal);
  std::size_t column = 0;
  EXPECT_TRUE(parse_seal({.number = 1, .text = line, .has_end = true}, column));
  EXPECT_FALSE(parse_seal({.number = 1, .text = line, .has_end = false}, column));
  EXPECT_EQ(column, line.size() + 1);
  EXPECT_FALSE(parse_seal({.number = 1, .text = "{}", .has_end = false}, column));
  EXPECT_EQ(column, 1U);
  EXPECT_EQ(no_seal_text("SEALS", 7, 13), "SEALS: line 7, column 13: the line is no seal");
}

TEST(KeptLine, IsWrittenAndRead) {
  const KeptLine kept{.number = 12, .digest = std::string(64, 'a')};
  const std::string text = kept_text(kept);
  EXPECT_EQ(text, "kova-seal 12 " + std::string(64, 'a'));
  for (const std::string& spelling :
       {text, " " + text + "\r\n", "kova-seal  12 " + std::string(64, 'A')}) {
    const auto read = parse_kept(spelling);
    ASSERT_TRUE(read) << spelling;
    EXPECT_EQ(read->number, 12U);
    EXPECT_EQ(read->digest, kept.digest);
  }
  for (const std::string& bad :
       {std::string(), std::string("kova-seal"), "kova-seal 0 " + kept.digest,
        "kova-seal x " + kept.digest, text + "a", text.substr(0, 70)}) {
    EXPECT_FALSE(parse_kept(bad)) << bad;
  }
}

}  // namespace
}  // namespace kova::admin
