// The canonical text of a write: what changes in it, what stays, and where it ends.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "policy/write_classifier.h"
#include "support/guard_page.h"
#include "unit/policy/classified.h"

namespace kova::testing {
namespace {

constexpr const char* kTexts[] = {
    "  insert   into   orders (id, note) values (1, 'a  B')  ;  ",
    "update t set a='it''s' , b = ''  where c=''''",
    "delete from t where a = 'x;--/*#' ;",
    "a'b",
    "'",
    "''",
    "a;b",
    "a--b",
    "a/*b",
    "a#b",
    " \t\n\v\f\r",
    "",
    ";",
    "\xC3\xA9 '\xC3\xA9' \xFF",
};

class Normaliser : public ::testing::Test {
 protected:
  /// The canonical text, or the message in angle brackets.
  std::string canonical(std::string_view sql, std::size_t capacity = kCanonicalCapacity) {
    const GuardedText text(sql);
    const GuardedBuffer room(capacity);
    char message[64];
    TextOut(message).copy_cut(kNoMessage);
    if (write_canonical(text.view(), {room.data(), capacity}, message)) {
      EXPECT_STREQ(message, kNoMessage);
      return room.data();
    }
    return "<" + std::string(message) + ">";
  }
  static std::string refusal(std::string_view text) { return "<" + std::string(text) + ">"; }
};

TEST_F(Normaliser, CollapsesOutsideLiteralsOnly) {
  EXPECT_EQ(canonical("  insert   into   orders (id, note) values (1, 'a  B')  ;  "),
            "INSERT INTO ORDERS (ID, NOTE) VALUES (1, 'a  B');");
}

TEST_F(Normaliser, OneSemicolonEndsEveryText) {
  struct Row {
    const char* sql;
    const char* canonical;
  };
  constexpr Row kRows[] = {
      {"", ";"},
      {";", ";"},
      {" ", ";"},
      {" ; ", ";"},
      {"a", "A;"},
      {"a;", "A;"},
      {"a ;", "A;"},
      {"a; \t\n\v\f\r", "A;"},
      {"a \t\n\v\f\r", "A;"},
      {"\t\n\v\f\r a", "A;"},
      {"'x'", "'x';"},
      {"'x';", "'x';"},
      {" 'x' ; ", "'x';"},
      {"';'", "';';"},
  };
  for (const Row& row : kRows) EXPECT_EQ(canonical(row.sql), row.canonical) << row.sql;
}

TEST_F(Normaliser, ARunOfWhiteSpaceIsOneBlank) {
  for (const char* space : {" ", "\t", "\n", "\v", "\f", "\r", "  ", "\r\n", " \t\n\v\f\r ",
                            "                                "}) {
    EXPECT_EQ(canonical("a" + std::string(space) + "b"), "A B;");
    EXPECT_EQ(canonical("a" + std::string(space) + "'b'" + space + "c"), "A 'b' C;");
    EXPECT_EQ(canonical(space + std::string("a") + space), "A;");
    EXPECT_EQ(canonical(space + std::string("'a'") + space), "'a';");
    // In a literal it stays.
    EXPECT_EQ(canonical("'a" + std::string(space) + "b'"), "'a" + std::string(space) + "b';");
  }
}

// White space is that of the C locale; everything else is text.
TEST_F(Normaliser, OtherBytesAreNoWhiteSpace) {
  for (const char* other : {"\x1C", "\x1D", "\x1E", "\x1F", "\x01", "\x08", "\x0E", "\x7F", "\x85",
                            "\xA0", "\xC2\xA0", "\xC2\x85", "\xE2\x80\x83", "\xE3\x80\x80"}) {
    const std::string bytes(other);
    EXPECT_EQ(canonical("a" + bytes + bytes + "b"), "A" + bytes + bytes + "B;");
    EXPECT_EQ(canonical(bytes + " a " + bytes), bytes + " A " + bytes + ";");
    // Behind the semicolon it is a second statement.
    EXPECT_EQ(canonical("a;" + bytes), refusal(kSecondStatement));
  }
}

// No blank is made, and none that stands between two others is dropped.
TEST_F(Normaliser, NoBlankIsAddedOrDropped) {
  EXPECT_EQ(canonical("a=1"), "A=1;");
  EXPECT_EQ(canonical("a = 1"), "A = 1;");
  EXPECT_EQ(canonical("a =1"), "A =1;");
  EXPECT_EQ(canonical("( 'a' , 'b' )"), "( 'a' , 'b' );");
  EXPECT_EQ(canonical("('a','b')"), "('a','b');");
}

TEST_F(Normaliser, OnlyAsciiLettersAreUpperCased) {
  std::string all;
  std::string expected;
  for (int byte = 0x21; byte < 0x100; ++byte) {
    const char c = static_cast<char>(byte);
    if (std::strchr("'#;-/*", c) != nullptr) continue;
    all += c;
    expected += c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
  }
  EXPECT_EQ(canonical(all), expected + ";");
  EXPECT_EQ(canonical("'" + all + "'"), "'" + all + "';");
  // Letters of other alphabets and look-alikes keep their case.
  EXPECT_EQ(canonical("\xC3\xA9\xC4\xB1\xC5\xBF\xE2\x84\xAA"),
            "\xC3\xA9\xC4\xB1\xC5\xBF\xE2\x84\xAA;");
}

TEST_F(Normaliser, ALiteralStaysAsItIs) {
  struct Row {
    const char* sql;
    const char* canonical;
  };
  constexpr Row kRows[] = {
      {"''", "'';"},
      {"''''", "'''';"},
      {"'a''b'", "'a''b';"},
      {"'a''''b'", "'a''''b';"},
      {"'a' 'b'", "'a' 'b';"},
      {"'a'b'c'", "'a'B'c';"},
      {"a'b'", "A'b';"},
      {"'-- /* # ; x'", "'-- /* # ; x';"},
      {"'a;' ;", "'a;';"},
      {"'a\\'", "'a\\';"},
      {"'\"'", "'\"';"},
      {"'\t\r\n'", "'\t\r\n';"},
      {"'\xC3\xA9\xFF'", "'\xC3\xA9\xFF';"},
      // Double quotes and brackets are plain text.
      {"\"aB  c\"", "\"AB C\";"},
      {"[aB  c]", "[AB C];"},
      {"`aB`", "`AB`;"},
  };
  for (const Row& row : kRows) EXPECT_EQ(canonical(row.sql), row.canonical) << row.sql;
}

// A quote inside double quotes opens a literal all the same.
TEST_F(Normaliser, DoubleQuotesHoldNothingTogether) {
  EXPECT_EQ(canonical("\"it's\" x 'a\""), "\"IT's\" x 'A\";");
  EXPECT_EQ(canonical("\"it's\""), refusal(kOpenLiteral));
  EXPECT_EQ(canonical("\"a;b\""), refusal(kSecondStatement));
  EXPECT_EQ(canonical("\"a;\""), refusal(kSecondStatement));
  EXPECT_EQ(canonical("\"a--b\""), refusal(kComment));
  EXPECT_EQ(canonical("\"/*\""), refusal(kComment));
  EXPECT_EQ(canonical("[a#b]"), refusal(kComment));
}

TEST_F(Normaliser, CommentsAreRefused) {
  for (const char* sql : {"--", "#", "/*", "a--", "a -- b", "a /* b */", "a#", "#a", "a---b",
                          "'a'--", "'a'#", "''/*", "/*/", "a/**/b", "a--\n", "--'", "#'"})
    EXPECT_EQ(canonical(sql), refusal(kComment)) << sql;
  for (const char* sql : {"a-b", "a- -b", "a-", "a/b", "a/", "a/ *b", "a*/b", "*", "a*-", "-'-'",
                          "'-'-", "/'*'", "'/'*"})
    EXPECT_TRUE(canonical(sql).ends_with(";")) << sql;
}

TEST_F(Normaliser, OnlyWhiteSpaceFollowsTheSemicolon) {
  for (const char* sql : {"a;b", "a; b", "a;;", "a; ;", ";;", ";a", "a;'", "a;''", "a;--", "a;#",
                          "a;/", "a;\x01", "a; \xC2\xA0"})
    EXPECT_EQ(canonical(sql), refusal(kSecondStatement)) << sql;
}

TEST_F(Normaliser, AnOpenLiteralIsRefused) {
  for (const char* sql :
       {"'", "a'", "'a", "'''", "'a''", "'a;", "'--", "'a''''", "a 'b' 'c", "'a''; x", "''''' "})
    EXPECT_EQ(canonical(sql), refusal(kOpenLiteral)) << sql;
}

// The first fault from the left speaks.
TEST_F(Normaliser, TheFirstFaultSpeaks) {
  EXPECT_EQ(canonical("a -- ; '"), refusal(kComment));
  EXPECT_EQ(canonical("a ; -- '"), refusal(kSecondStatement));
  EXPECT_EQ(canonical("a ' -- ;"), refusal(kOpenLiteral));
  EXPECT_EQ(canonical("a # b ; c"), refusal(kComment));
}

// The room counts the terminator; a text of so many bytes leaves two for ";" and itself.
TEST_F(Normaliser, OutsideALiteralAFullTextHasAMessage) {
  for (std::size_t room = 3; room < 40; ++room) {
    EXPECT_EQ(canonical(std::string(room - 2, 'x'), room), std::string(room - 2, 'X') + ";");
    EXPECT_EQ(canonical(std::string(room - 1, 'x'), room), refusal(kFull)) << room;
    EXPECT_EQ(canonical(std::string(room + 9, 'x'), room), refusal(kFull)) << room;
    // What is not copied needs no room.
    EXPECT_EQ(canonical(" " + std::string(room - 2, 'x') + "  ;  ", room),
              std::string(room - 2, 'X') + ";");
  }
}

TEST_F(Normaliser, InsideALiteralAFullTextHasNone) {
  for (std::size_t room = 4; room < 40; ++room) {
    const std::string inside(room - 4, 'x');
    EXPECT_EQ(canonical("'" + inside + "'", room), "'" + inside + "';") << room;
    EXPECT_EQ(canonical("'" + inside + "x'", room), refusal(kNoMessage)) << room;
    EXPECT_EQ(canonical("'" + inside + "xx'", room), refusal(kNoMessage)) << room;
    EXPECT_EQ(canonical("'" + inside + "xxxxxxxxxx", room), refusal(kNoMessage)) << room;
    // A pair of quotes that fits by half.
    EXPECT_EQ(canonical("'" + inside + "'''", room), refusal(kNoMessage)) << room;
    // A literal that is open where the text ends, and fits.
    EXPECT_EQ(canonical("'" + inside, room), refusal(kOpenLiteral)) << room;
    EXPECT_EQ(canonical("'" + inside + "x", room), refusal(kOpenLiteral)) << room;
  }
}

TEST_F(Normaliser, AFaultBeforeTheTextIsFullSpeaks) {
  EXPECT_EQ(canonical("abc -- xxxxxxxxxxxxxxxx", 8), refusal(kComment));
  EXPECT_EQ(canonical("abc;xxxxxxxxxxxxxxxxxxx", 8), refusal(kSecondStatement));
  EXPECT_EQ(canonical("abcdefghijk -- x", 8), refusal(kFull));
  EXPECT_EQ(canonical("abc'defghijk' -- x", 8), refusal(kNoMessage));
}

TEST_F(Normaliser, AQuotationMarkThatDoesNotFitIsTooLarge) {
  EXPECT_EQ(canonical("abcdef''", 10), "ABCDEF'';");
  EXPECT_EQ(canonical("abcdef ''", 8), refusal(kFull));
}

TEST_F(Normaliser, ARefusedTextLeavesWhatWasWrittenUntilThen) {
  struct Row {
    const char* sql;
    const char* written;
  };
  for (const Row& row : {Row{"-- x", ""}, Row{"; x", ""}, Row{"a -- x", "A"}}) {
    char text[32] = "of an earlier call";
    char message[64];
    EXPECT_FALSE(write_canonical(row.sql, text, message)) << row.sql;
    EXPECT_STREQ(text, row.written) << row.sql;
  }
}

TEST_F(Normaliser, StaysWithinEveryRoom) {
  for (const char* sql : kTexts) {
    const std::string whole = canonical(sql);
    for (std::size_t room = 1; room < 70; ++room) {
      const std::string text = canonical(sql, room);
      if (!text.starts_with('<')) {
        EXPECT_EQ(text, whole) << sql << room;
      }
    }
  }
}

TEST_F(Normaliser, ReadsNoByteAroundAText) {
  for (const char* sql : kTexts) {
    const std::string text(sql);
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
      canonical(text.substr(0, cut));
      const GuardedText tail(text.substr(cut), GuardSide::kBefore);
      char room[128];
      char message[64];
      static_cast<void>(write_canonical(tail.view(), room, message));
    }
  }
}

TEST_F(Normaliser, TwiceIsOnce) {
  for (const char* sql : kTexts) {
    const std::string once = canonical(sql);
    if (!once.starts_with('<')) {
      EXPECT_EQ(canonical(once), once) << sql;
    }
  }
}

}  // namespace
}  // namespace kova::testing
