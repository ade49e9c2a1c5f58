// The page that an operator reads.
#include "admin/approve/page.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "admin/common/output.h"
#include "unit/policy/classified.h"

namespace kova::testing {
namespace {

using admin::PageStyle;
using admin::Review;

constexpr admin::UnixMs kNow = 1709210096789;
constexpr PageStyle kPlain{.columns = 80, .colour = false};

class Page : public WriteClassifier {
 protected:
  std::string page_of(const std::string& sql, const PageStyle& style = kPlain) {
    EXPECT_TRUE(classify(sql)) << message;
    TextOut(policy->client_id).copy_cut("desk");
    Review review;
    review.policy = std::make_unique<McpPolicy>(*policy);
    review.policy_file = "/srv/policy\x1b[2J.json";
    review.policy_digest = std::string(64, 'd');
    review.spelling = sql;
    review.write = std::make_unique<ClassifiedWrite>(*write);
    review.warnings = admin::find_warnings(*write);
    return admin::review_page(review, kNow, style);
  }
};

TEST_F(Page, OfAPlainWrite) {
  const std::string page = page_of("DELETE FROM T WHERE A = 1;");
  EXPECT_EQ(page,
            "policy     Demo_1\n"
            "  file     /srv/policy\\x1B[2J.json\n"
            "  SHA-256  " +
                std::string(64, 'd') +
                "\n"
                "client     desk\n"
                "database   SHOP\n"
                "type       DELETE\n"
                "table      T\n"
                "\n"
                "The canonical statement: every byte that the digest covers\n"
                "    1:1     | DELETE FROM T WHERE A = 1;\n"
                "\n"
                "digest     " +
                std::string(write->digest) +
                "\n"
                "token      300 seconds from the confirmation (2024-02-29T12:39:56.789Z if now)\n"
                "warnings   none\n");
}

TEST_F(Page, TheClientsSpellingStandsBesideItWhereItDiffers) {
  const std::string page = page_of("delete\nfrom t where a = 1");
  const std::size_t spelling = page.find("as the client wrote it");
  const std::size_t canonical = page.find("The canonical statement");
  ASSERT_LT(spelling, canonical);
  EXPECT_NE(page.find("    1:1     | delete\\n\n    2:1     | from t where a = 1\n"),
            std::string::npos);
  EXPECT_NE(page.find("    1:1     | DELETE FROM T WHERE A = 1;\n", canonical), std::string::npos);
}

TEST_F(Page, EachWarningIsOneLineWithItsPlace) {
  const std::string page = page_of("UPDATE T SET A = 'x\ny', B = F(G(1)), C = '\xC3\xBC';");
  EXPECT_NE(page.find("\nWarnings: 3\n"
                      "warning no-where at 1:1: no WHERE: every row of the table is meant: "
                      "UPDATE T SET A = 'x\\n\n"),
            std::string::npos)
      << page;
  EXPECT_NE(page.find("\nwarning function-call at 2:9 (2 places): a function call: F(G(1)), "),
            std::string::npos);
}

TEST_F(Page, NothingIsCutAtAnyWidth) {
  std::string sql = "UPDATE T SET A = '";
  for (int i = 0; i < 400; ++i) sql += std::to_string(i) + ',';
  sql += "' WHERE B = 2;";
  for (const unsigned columns : {0U, 1U, 34U, 35U, 80U, 4000U}) {
    const std::string page = page_of(sql, {.columns = columns, .colour = false});
    std::string shown;
    for (std::size_t at = page.find(" | "); at != std::string::npos; at = page.find(" | ", at)) {
      const std::size_t end = page.find('\n', at);
      shown += page.substr(at + 3, end - at - 3);
      // A row is as wide as the terminal, where that leaves room for a statement.
      if (columns > 34) {
        EXPECT_LE(end - page.rfind('\n', at) - 1, columns);
      }
      at = end;
    }
    EXPECT_EQ(shown, sql) << columns;
  }
}

TEST_F(Page, ColourIsNeverAlone) {
  const std::string sql = "DELETE FROM T;";
  const std::string plain = page_of(sql);
  std::string coloured = page_of(sql, {.columns = 80, .colour = true});
  EXPECT_NE(coloured, plain);
  for (const admin::Colour colour :
       {admin::Colour::kNone, admin::Colour::kBold, admin::Colour::kYellow}) {
    const std::string code(admin::colour_code(colour));
    for (std::size_t at = 0; (at = coloured.find(code)) != std::string::npos;) {
      coloured.erase(at, code.size());
    }
  }
  EXPECT_EQ(coloured, plain);
}

TEST_F(Page, NoByteOfTheStatementReachesTheTerminalUnescaped) {
  const std::string page =
      page_of("UPDATE T SET A = '\x1b[2J\x07\xE2\x80\xAE\xE2\x80\x8B\xC2\x9B\r' WHERE B = 1");
  for (const char c : page) EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 0x7F));
  EXPECT_NE(page.find("'\\x1B[2J\\x07\\u{202E}\\u{200B}\\u{9B}\\r'"), std::string::npos);
}

}  // namespace
}  // namespace kova::testing
