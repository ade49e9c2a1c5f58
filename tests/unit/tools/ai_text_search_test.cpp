// kova_text_search, and the literal that carries a client's text.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>

#include "support/guard_page.h"
#include "tools/ai_collection.h"
#include "tools/ai_search_tools.h"
#include "unit/tools/tool_fixture.h"

namespace kova::testing {
namespace {

const std::string kBadTextArguments =
    tool_error("invalid collection, text, top limit, or unknown argument");
const std::string kTextSearchDone =
    tool_success(R"({"status":"OK","columns":[],"rows":[],"rowCount":0,"truncated":false})");

// --- the literal ------------------------------------------------------------------------------

/// The literal, or "refused".
std::string literal_of(std::string_view text, std::size_t capacity = kAiStatementCapacity) {
  const GuardedText guarded(text);
  const GuardedBuffer room(capacity);
  const bool done = quote_sql_text(guarded.view(), {room.data(), capacity});
  return done ? room.data() : "refused";
}

TEST(QuoteSqlText, DoublesQuotesAndNothingElse) {
  struct Row {
    const char* text;
    const char* literal;
  };
  constexpr Row kRows[] = {
      {"", "''"},
      {"red car", "'red car'"},
      {"O'Brien", "'O''Brien'"},
      {"'", "''''"},
      {"''", "''''''"},
      {"';DROP TABLE T;--", "''';DROP TABLE T;--'"},
      {"\\'", "'\\'''"},
      {"a\\", "'a\\'"},
      {"\"", "'\"'"},
      {"a\tb\nc\rd", "'a\tb\nc\rd'"},
      {"\x7F", "'\x7F'"},
      {"caf\xC3\xA9 \xF0\x9F\x9A\x97", "'caf\xC3\xA9 \xF0\x9F\x9A\x97'"},
      {"\xE2\x80\x99 \xCA\xBC", "'\xE2\x80\x99 \xCA\xBC'"},
      {"-- /* # ; %s %n", "'-- /* # ; %s %n'"},
  };
  for (const Row& row : kRows) EXPECT_EQ(literal_of(row.text), row.literal) << row.text;
}

TEST(QuoteSqlText, RefusesControlBytes) {
  for (int value = 0; value < 256; ++value) {
    const char byte = static_cast<char>(value);
    const bool refused = value < 0x20 && byte != '\t' && byte != '\n' && byte != '\r';
    for (const std::string& text :
         {std::string(1, byte), "a" + std::string(1, byte), std::string(1, byte) + "a"}) {
      EXPECT_EQ(literal_of(text) == "refused", refused) << value;
    }
  }
}

TEST(QuoteSqlText, FitsWithItsTerminator) {
  for (std::size_t room = 1; room < 40; ++room) {
    for (std::size_t length = 0; length < 40; ++length) {
      const std::string plain(length, 'x');
      ASSERT_EQ(literal_of(plain, room), length + 3 <= room ? "'" + plain + "'" : "refused");
      const std::string quotes(length, '\'');
      ASSERT_EQ(literal_of(quotes, room),
                2 * length + 3 <= room ? "''" + quotes + quotes : "refused");
    }
  }
  EXPECT_NE(literal_of(std::string(32765, 'x')), "refused");
  EXPECT_EQ(literal_of(std::string(32766, 'x')), "refused");
  EXPECT_NE(literal_of(std::string(16382, '\'')), "refused");
  EXPECT_EQ(literal_of(std::string(16383, '\'')), "refused");
}

// --- the tool ---------------------------------------------------------------------------------

class TextSearch : public ToolCalls {
 protected:
  /// `text` is JSON.
  std::string search(std::string_view text, std::string_view top = "5") {
    return call("kova_text_search", "{\"collection\":\"DOCS\",\"text\":" + std::string(text) +
                                        ",\"top\":" + std::string(top) + "}");
  }
};

TEST_F(TextSearch, SendsOneStatement) {
  library.answer("SEARCH AI DOCS TEXT 'O''Brien' TOP 5;",
                 {.status = "ok", .columns = {"RANK", "SCORE"}, .rows = {{"1", "0.5"}}});
  const std::string json = R"({"status":"ok","columns":["RANK","SCORE"],"rows":[["1","0.5"]],)"
                           R"("rowCount":1,"truncated":false})";
  EXPECT_EQ(search("\"O'Brien\""), tool_success(json));
  EXPECT_EQ(library.statements(), (Calls{"SEARCH AI DOCS TEXT 'O''Brien' TOP 5;"}));
  expect_audit("allow", "DOCS");
  const std::string log = audit_log();
  EXPECT_NE(log.find("\"rows\":1,\"bytes\":" + std::to_string(json.size()) + ",\"status\":\"ok\""),
            std::string::npos)
      << log;
}

TEST_F(TextSearch, TheTextIsDecodedAndQuoted) {
  struct Row {
    const char* text;
    const char* statement;
  };
  constexpr Row kRows[] = {
      {R"("red car")", "SEARCH AI DOCS TEXT 'red car' TOP 5;"},
      {R"("a\nb")", "SEARCH AI DOCS TEXT 'a\nb' TOP 5;"},
      {R"("a\tb\r")", "SEARCH AI DOCS TEXT 'a\tb\r' TOP 5;"},
      {R"("\u0027\u00e9")", "SEARCH AI DOCS TEXT '''\xC3\xA9' TOP 5;"},
      {R"("\"\\\/")", "SEARCH AI DOCS TEXT '\"\\/' TOP 5;"},
      {R"("%s%lu")", "SEARCH AI DOCS TEXT '%s%lu' TOP 5;"},
      {R"(" ")", "SEARCH AI DOCS TEXT ' ' TOP 5;"},
      // A decoded text ends at an escaped NUL.
      {R"("a\u0000b\u0001")", "SEARCH AI DOCS TEXT 'a' TOP 5;"},
  };
  for (const Row& row : kRows) {
    library.forget_calls();
    EXPECT_EQ(search(row.text), kTextSearchDone) << row.text;
    EXPECT_EQ(library.statements(), (Calls{row.statement}));
  }
}

TEST_F(TextSearch, TheCollectionIsSpelledAsTheClientDoes) {
  EXPECT_EQ(call("kova_text_search", R"({"top":1,"text":"x","collection":"d\u006fCs"})"),
            kTextSearchDone);
  EXPECT_EQ(library.statements(), (Calls{"SEARCH AI doCs TEXT 'x' TOP 1;"}));
  expect_audit("allow", "doCs");
}

TEST_F(TextSearch, ArgumentsAreKnownAndComplete) {
  for (const char* arguments :
       {R"({"collection":"DOCS"})", R"({"collection":"DOCS","text":"x"})",
        R"({"collection":"DOCS","top":5})", R"({"collection":"DOCS","text":"x","top":5,"a":1})",
        R"({"collection":"DOCS","text":"x","top":5,"max_rows":5})",
        R"({"collection":"DOCS","text":"x","top":5,"vector":[1]})",
        R"({"collection":"DOCS","Text":"x","top":5})",
        R"({"collection":"DOCS","text":"x","TOP":5})",
        R"({"collection":"DOCS","te\u0078t":"x","top":5})",
        R"({"collection":"DOCS","text":"x","t\u006fp":5})"}) {
    EXPECT_EQ(call("kova_text_search", arguments), kBadTextArguments) << arguments;
    expect_audit("allow", "");
  }
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(call("kova_text_search", R"({"collection":"DOCS","text":"x","top":5,"_meta":[1]})"),
            kTextSearchDone);
}

TEST_F(TextSearch, TheTextHas1To8192Bytes) {
  const auto literal = [](std::size_t size) { return "\"" + std::string(size, 'x') + "\""; };
  for (const std::string& text :
       {std::string("null"), std::string("5"), std::string("true"), std::string("[\"x\"]"),
        std::string("{}"), std::string("\"\""), std::string("\"\\u0000x\""),
        std::string("\"\\u0001\""), std::string("\"a\\u001f\""), std::string("\"\\b\""),
        std::string("\"\\f\""), std::string("\"\\ud800\""), literal(8193), literal(16400),
        literal(16401), literal(500000)}) {
    EXPECT_EQ(search(text), kBadTextArguments) << text.substr(0, 80);
    expect_audit("allow", "");
  }
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(search(literal(8192)), kTextSearchDone);
  EXPECT_EQ(search(literal(1)), kTextSearchDone);
  // Every byte doubled.
  library.forget_calls();
  EXPECT_EQ(search("\"" + std::string(8192, '\'') + "\""), kTextSearchDone);
  EXPECT_EQ(library.statements(),
            (Calls{"SEARCH AI DOCS TEXT '" + std::string(16384, '\'') + "' TOP 5;"}));
  // Bytes are counted, not letters.
  std::string accents;
  for (int i = 0; i < 4096; ++i) accents += "\\u00e9";
  EXPECT_EQ(search("\"" + accents + "\""), kTextSearchDone);
  EXPECT_EQ(search("\"" + accents + "x\""), kBadTextArguments);
}

// Which shows when the text itself ends early.
TEST_F(TextSearch, TheTextIsDecodedInto16400Bytes) {
  EXPECT_EQ(search("\"x\\u0000" + std::string(16398, 'y') + "\""), kTextSearchDone);
  EXPECT_EQ(library.statements(), (Calls{"SEARCH AI DOCS TEXT 'x' TOP 5;"}));
  EXPECT_EQ(search("\"x\\u0000" + std::string(16399, 'y') + "\""), kBadTextArguments);
}

TEST_F(TextSearch, TopIs1To256) {
  for (const char* top : {"0", "257", "-1", "\"5\"", "5.0", "1e2", "null", "true", "[5]", "{}",
                          "4294967297", "18446744073709551617"}) {
    EXPECT_EQ(search("\"x\"", top), kBadTextArguments) << top;
    expect_audit("allow", "");
  }
  EXPECT_EQ(library.calls(), Calls{});
  FakeResult many = {.status = "ok", .columns = {"RANK"}};
  for (int i = 0; i < 300; ++i) many.rows.push_back({std::to_string(i)});
  library.other = many;
  EXPECT_NE(search("\"x\"", "1").find("\"rowCount\":1,\"truncated\":true"), std::string::npos);
  EXPECT_NE(search("\"x\"", "256").find("\"rowCount\":256,\"truncated\":true"), std::string::npos);
  EXPECT_EQ(library.statements(),
            (Calls{"SEARCH AI DOCS TEXT 'x' TOP 1;", "SEARCH AI DOCS TEXT 'x' TOP 256;"}));
}

TEST_F(TextSearch, AFailureHasTheEnginesMessage) {
  constexpr char kStatement[] = "SEARCH AI DOCS TEXT 'x' TOP 5;";
  library.answer(kStatement, {.code = 0, .status = "collection DOCS is empty"});
  EXPECT_EQ(search("\"x\""), tool_error("collection DOCS is empty"));
  expect_audit("allow", "DOCS");
  library.answer(kStatement, {.code = -3, .status = std::nullopt});
  EXPECT_EQ(search("\"x\""), tool_error("database statement failed"));
}

TEST_F(TextSearch, NeedsProviders) {
  providers_switch.set("1");
  EXPECT_EQ(search("5"),
            tool_error("provider-backed MCP reads are disabled by policy or kill switch"));
  expect_audit("kill_switch", "");
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(TextSearch, WithoutAPolicyEverySafeCollectionIsSearched) {
  use_no_policy();
  const std::string name(63, 'c');
  EXPECT_EQ(call("kova_text_search", "{\"collection\":\"" + name + "\",\"text\":\"x\",\"top\":1}"),
            kTextSearchDone);
  EXPECT_EQ(library.statements(), (Calls{"SEARCH AI " + name + " TEXT 'x' TOP 1;"}));
  expect_audit("allow", name);
}

}  // namespace
}  // namespace kova::testing
