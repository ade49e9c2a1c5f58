// Which writes are accepted, with which message the others are refused, and in which order.
#include "policy/write_classifier.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/digest_failure.h"
#include "support/reference_digest.h"
#include "unit/policy/classified.h"
#include "unit/policy/letters.h"

namespace kova::testing {
namespace {

constexpr const char* kProhibitedWords[] = {
    "CREATE",      "DROP", "ALTER",    "GRANT", "REVOKE", "COMMIT", "ROLLBACK",
    "TRANSACTION", "EXEC", "EXECUTE",  "CALL",  "RUN",    "LOAD",   "IMPORT",
    "EXPORT",      "SYNC", "PROVIDER", "LOGIN", "LOGOUT", "USE"};

TEST_F(WriteClassifier, FillsEveryText) {
  EXPECT_TRUE(classify("  insert   into   orders (id, note) values (1, 'a  B')  ;  "));
  EXPECT_STREQ(message, kNoMessage);
  EXPECT_STREQ(write->canonical, "INSERT INTO ORDERS (ID, NOTE) VALUES (1, 'a  B');");
  EXPECT_STREQ(write->type, "INSERT");
  EXPECT_STREQ(write->table, "ORDERS");
  EXPECT_EQ(write->digest,
            to_hex(reference_sha256("INSERT INTO ORDERS (ID, NOTE) VALUES (1, 'a  B');")));
}

TEST_F(WriteClassifier, TheDigestIsOfTheCanonicalTextAlone) {
  EXPECT_TRUE(classify("delete from t"));
  EXPECT_STREQ(write->digest, "cb062bc682c4948c493b67ac874032ac901d00662755e1038828c6f21e155954");
}

// --- the shapes -------------------------------------------------------------------------------

TEST_F(WriteClassifier, ThreeShapesAreWrites) {
  struct Row {
    const char* sql;
    const char* type;
    const char* table;
  };
  constexpr Row kRows[] = {
      {"INSERT INTO T VALUES (1)", "INSERT", "T"},
      {"insert into t", "INSERT", "T"},
      {"INSERT INTO T SELECT * FROM ORDERS", "INSERT", "T"},
      {"INSERT (INTO) T", "INSERT", "T"},
      {"UPDATE T SET A = 1", "UPDATE", "T"},
      {"update t", "UPDATE", "T"},
      {"UPDATE T.X SET A = 1", "UPDATE", "T"},
      {"UPDATE \"T\" SET A = 1", "UPDATE", "T"},
      {"UPDATE [T] SET A = 1", "UPDATE", "T"},
      {"UPDATE T, SECRET SET A = 1", "UPDATE", "T"},
      {"DELETE FROM T", "DELETE", "T"},
      {"delete from orders where a in (select b from secret)", "DELETE", "ORDERS"},
      {"DELETE FROM Log", "DELETE", "LOG"},
      {"DELETE FROM T.SECRET", "DELETE", "T"},
      {"DELETE FROM T, SECRET", "DELETE", "T"},
      // Digits before a word are skipped, and so is everything else that no word has.
      {"9UPDATE T", "UPDATE", "T"},
      {"UPDATE 9T", "UPDATE", "T"},
      {"123 (UPDATE) +*- 5T", "UPDATE", "T"},
      {"\xC3\xA9 UPDATE \xC3\xA9T\xC3\xA9", "UPDATE", "T"},
      {"UPDATE\xC2\xA0T", "UPDATE", "T"},
      // Words in literals count here.
      {"UPDATE 'T' SET A = 1", "UPDATE", "T"},
      {"'update' T", "UPDATE", "T"},
      {"UPDATE 't'", "UPDATE", "T"},
      {"INSERT 'into' T", "INSERT", "T"},
      {"DELETE 'from' T", "DELETE", "T"},
      {"DELETE 'FROM T'", "DELETE", "T"},
      {"'insert into t'", "INSERT", "T"},
  };
  for (const Row& row : kRows) expect_write(row.sql, row.type, row.table);
}

// Double quotes are no literals, so an apostrophe inside them opens one; docs/security-model.md
// lists it.
TEST_F(WriteClassifier, AStatementHidesBetweenApostrophesInDoubleQuotes) {
  static constexpr char kSql[] = R"(UPDATE T SET a = "'"; DROP TABLE U; SELECT "'")";
  expect_write(kSql, "UPDATE", "T");
  expect_canonical(kSql, R"(UPDATE T SET A = "'"; DROP TABLE U; SELECT "'";)");
  expect_refused(R"(UPDATE T SET a = "'"; DROP TABLE U; SELECT '"'")", kOpenLiteral);
  expect_refused(R"(UPDATE T SET a = "''"; DROP TABLE U)", kSecondStatement);
}

TEST_F(WriteClassifier, FewerThanTwoWordsCannotBeClassified) {
  for (const char* sql : {" ",
                          ";",
                          " ; ",
                          "1",
                          "(1)",
                          "INSERT",
                          "UPDATE",
                          "DELETE",
                          "DROP",
                          "X",
                          "UPDATE;",
                          "UPDATE 9",
                          "9 UPDATE 9",
                          "'UPDATE'",
                          "''",
                          "\xC3\xA9",
                          "UPDATE \xC3\xA9",
                          "UPDATE ' '",
                          "123 456",
                          "_",
                          "\t\n"})
    expect_refused(sql, kNoWordsFound);
}

TEST_F(WriteClassifier, AnythingElseIsNoWrite) {
  for (const char* sql : {"DELETE T WHERE A = 1",
                          "MERGE INTO T",
                          "INSERT T VALUES (1)",
                          "INSERT INTO",
                          "INSERT INTO (1)",
                          "DELETE FROM",
                          "DELETE FROM 1",
                          "SELECT A FROM T",
                          "DROP TABLE T",
                          "INTO INSERT T",
                          "FROM DELETE T",
                          "INSERTS INTO T",
                          "XINSERT INTO T",
                          "_UPDATE T",
                          "UPDATE_ T",
                          "UPDATES T",
                          "INSERT INTOX T",
                          "DELETE FROMX T",
                          "REPLACE INTO T",
                          "WITH X AS (SELECT 1) UPDATE T",
                          "EXPLAIN UPDATE T",
                          "UPSERT INTO T",
                          "TRUNCATE TABLE T",
                          "TRUNCATE FROM T",
                          "9_UPDATE T",
                          "INSERT OR REPLACE INTO T",
                          "INSERT 'x' INTO T",
                          "'a' UPDATE T",
                          "\"x\" UPDATE T",
                          "DELETE 'x' FROM T",
                          "UPDATE1 T",
                          "\xC3\x9CPDATE T X",
                          "U\xC5\xBFPDATE T"})
    expect_refused(sql, kNoWrite);
}

// --- policy: type and table -------------------------------------------------------------------

TEST_F(WriteClassifier, TheTypeMustBeAllowed) {
  struct Row {
    const char* sql;
    std::uint32_t type;
  };
  constexpr Row kRows[] = {
      {"INSERT INTO T", kInsert}, {"UPDATE T", kUpdate}, {"DELETE FROM T", kDelete}};
  for (std::uint32_t mask = 1; mask < 8; ++mask) {
    policy->write_type_mask = mask;
    for (const Row& row : kRows) {
      if ((mask & row.type) != 0) {
        EXPECT_TRUE(classify(row.sql)) << row.sql << mask;
      } else {
        expect_refused(row.sql, kDeniedWrite);
      }
    }
  }
}

TEST_F(WriteClassifier, TheTableMustBeAllowedForWriting) {
  for (const char* sql : {"UPDATE OTHER SET A = 1", "DELETE FROM TT", "INSERT INTO ORDER (A)",
                          // Readable, not writable.
                          "UPDATE ITEMS SET A = 1", "UPDATE SCHEMA.T SET A = 1", "UPDATE ONLY T",
                          "INSERT INTO OTHER SELECT * FROM T", "UPDATE _T", "UPDATE T_"})
    expect_refused(sql, kDeniedWrite);
  for (const char* sql :
       {"update LOG", "update Log", "update log", "UPDATE ORDERS", "update orders"})
    EXPECT_TRUE(classify(sql)) << sql;
}

// Names are compared by their first 63 characters, and the whole of it is what runs.
TEST_F(WriteClassifier, ATableNameHas63Characters) {
  const std::string name(63, 'n');
  fill(policy->write_tables, {name});
  const std::string table(63, 'N');
  expect_write("update " + name + " set a = 1", "UPDATE", table);
  expect_write("insert into " + name, "INSERT", table);
  expect_write("delete from " + name, "DELETE", table);
  expect_refused("update " + name.substr(1) + " set a = 1", kDeniedWrite);
  expect_write("update " + name + "x set a = 1", "UPDATE", table);
  EXPECT_EQ(std::string_view(write->canonical), "UPDATE " + table + "X SET A = 1;");
  expect_write("insert into " + name + "x", "INSERT", table);
  expect_write("delete from " + name + "x", "DELETE", table);
  expect_write("update " + name + std::string(5000, 'y'), "UPDATE", table);
  EXPECT_EQ(std::string_view(write->canonical), "UPDATE " + table + std::string(5000, 'Y') + ";");
  fill(policy->write_tables, {name.substr(1)});
  expect_refused("update " + name + " set a = 1", kDeniedWrite);
  expect_write("update " + name.substr(1) + " set a = 1", "UPDATE", table.substr(1));
}

// --- prohibited words -------------------------------------------------------------------------

TEST_F(WriteClassifier, ProhibitedWords) {
  for (const std::string word : kProhibitedWords) {
    for (const std::string& spelled :
         {word, lower(word), word.substr(0, 1) + lower(word.substr(1))}) {
      for (const std::string& sql :
           {"UPDATE T SET A = 1 " + spelled, "UPDATE T SET " + spelled + "=1",
            "UPDATE T SET A = 1 WHERE B IN (SELECT X FROM " + spelled + ")",
            "UPDATE T SET \"" + spelled + "\" = 1", "UPDATE T SET A=1," + spelled + "('x')",
            "UPDATE T SET A = X." + spelled, "UPDATE T SET A = 9" + spelled,
            "UPDATE T SET A = \xC3\xA9" + spelled + "\xC3\xA9",
            "UPDATE T SET A = '' " + spelled + " ''", "UPDATE T SET A='it''s'" + spelled,
            "DELETE FROM T " + spelled + " 'x'", "INSERT INTO T (" + spelled + ") VALUES (1)"})
        expect_refused(sql, kProhibited);
    }
  }
}

TEST_F(WriteClassifier, WordsThatOnlyResembleProhibitedOnes) {
  for (const std::string word : kProhibitedWords) {
    for (const std::string& near :
         {word + "_LOG", "_" + word, word + "S", "X" + word, word + "1", word + word, word + "_",
          word.substr(1), "'" + word + "'", "'a " + word + " b'", "'''" + word + "'",
          "'it''s " + word + "'", "'\"" + word + "\"'"}) {
      EXPECT_TRUE(classify("UPDATE T SET A = " + near)) << near << message;
    }
  }
  for (const char* sql :
       {"UPDATE T SET NOTE = 'DROP'", "UPDATE t SET a = 1 WHERE b IN (SELECT x FROM drop_log)"})
    EXPECT_TRUE(classify(sql)) << sql;
  expect_refused("INSERT INTO t SELECT * FROM load", kProhibited);
}

TEST_F(WriteClassifier, OtherWordsAreNotProhibited) {
  for (const char* word :
       {"SET",     "VALUES", "WHERE",  "INSERT",    "UPDATE", "DELETE", "INTO",     "LOCK",
        "ATTACH",  "DETACH", "UNLOCK", "SELECT",    "UNION",  "FROM",   "TRUNCATE", "MERGE",
        "REPLACE", "BEGIN",  "END",    "SAVEPOINT", "PRAGMA", "VACUUM"})
    EXPECT_TRUE(classify("UPDATE T SET A = 1 " + std::string(word))) << word;
}

TEST_F(WriteClassifier, AProhibitedTableIsFirstATable) {
  expect_refused("UPDATE LOAD SET A = 1", kDeniedWrite);
  fill(policy->write_tables, {"LOAD"});
  expect_refused("UPDATE LOAD SET A = 1", kProhibited);
  // As a literal's word it is a table, and no prohibited word.
  expect_write("UPDATE 'load' SET A = 1", "UPDATE", "LOAD");
}

// --- policy: whether writes are allowed -------------------------------------------------------

TEST_F(WriteClassifier, WritesMustBeOn) {
  static constexpr char kSql[] = "UPDATE T SET A = 1";
  const auto expect_off_without = [this](bool& flag) {
    flag = false;
    expect_refused(kSql, kWritesOff);
    flag = true;
    EXPECT_TRUE(classify(kSql));
  };
  expect_off_without(policy->valid);
  expect_off_without(policy->configured);
  expect_off_without(policy->writes_enabled);
  policy->write_type_mask = 0;
  expect_refused(kSql, kWritesOff);
  policy->write_type_mask = kUpdate;
  policy->write_tables.count = 0;
  expect_refused(kSql, kWritesOff);
  policy = no_policy();
  expect_refused(kSql, kWritesOff);
}

TEST_F(WriteClassifier, TheKillSwitchTurnsWritesOff) {
  for (const char* value : {"1", "TRUE", "Yes", "on"}) {
    writes_switch.set(value);
    expect_refused("UPDATE T SET A = 1", kWritesOff);
  }
  for (const char* value : {"01", "true ", "enable", "0", "false", ""}) {
    writes_switch.set(value);
    EXPECT_TRUE(classify("UPDATE T SET A = 1")) << value;
  }
}

// Neither reads nor approvals are its business.
TEST_F(WriteClassifier, OtherSwitchesDoNotMatter) {
  policy->reads_enabled = false;
  policy->provider_reads_enabled = false;
  policy->approval_required = true;
  fill(policy->denied_columns, {"A"});
  EXPECT_TRUE(classify("UPDATE T SET A = 1"));
}

// --- sizes ------------------------------------------------------------------------------------

class WriteSizes : public WriteClassifier {
 protected:
  /// A statement of exactly so many bytes, with no white space at its end.
  static std::string plain(std::size_t size) {
    const std::string head = "DELETE FROM T WHERE A = ";
    return head + std::string(size - head.size(), '1');
  }
  static std::string open_literal(std::size_t size) {
    const std::string head = "DELETE FROM T WHERE A = '";
    return head + std::string(size - head.size(), 'x');
  }
};

TEST_F(WriteSizes, AnEmptyTextIsRefused) {
  expect_refused("", kWriteSize);
}

TEST_F(WriteSizes, OutsideALiteral) {
  expect_canonical(plain(32766), plain(32766) + ";");
  expect_canonical(plain(32767), plain(32767) + ";");
  expect_canonical(plain(32767) + ";", plain(32767) + ";");
  expect_canonical(plain(32767) + " ", plain(32767) + ";");
  expect_refused(plain(32768), kFull);
  expect_refused(plain(32769), kWriteSize);
  expect_refused(plain(32768) + ";", kWriteSize);
  expect_refused(plain(32767) + ";;", kWriteSize);
  expect_refused(plain(32767) + "; ", kWriteSize);
  expect_refused(plain(32767) + "-", kFull);
  expect_refused(plain(32766) + "--", kComment);
  expect_refused(plain(32767) + "#", kComment);
  expect_refused(plain(32766) + " x", kFull);
  expect_refused(std::string(100000, 'x'), kWriteSize);
}

TEST_F(WriteSizes, InsideALiteral) {
  // Closed within the room.
  expect_canonical(open_literal(32765) + "'", open_literal(32765) + "';");
  expect_canonical(open_literal(32766) + "'", open_literal(32766) + "';");
  expect_canonical(open_literal(32766) + "';", open_literal(32766) + "';");
  // The closing quote does not fit.
  expect_refused(open_literal(32767) + "'", kNoMessage);
  // Open, and within the room or not.
  expect_refused(open_literal(32766), kOpenLiteral);
  expect_refused(open_literal(32767), kOpenLiteral);
  expect_refused(open_literal(32768), kNoMessage);
  // A pair of quotes across the end of the room.
  expect_refused(open_literal(32765) + "''", kOpenLiteral);
  expect_refused(open_literal(32766) + "''", kNoMessage);
  expect_refused(open_literal(32765) + "'''", kNoMessage);
  expect_canonical(open_literal(32764) + "'''", open_literal(32764) + "''';");
  // A literal that opens where the room ends.
  expect_refused(plain(32767) + "'", kOpenLiteral);
  expect_refused(plain(32766) + "''", kNoMessage);
  expect_canonical(plain(32765) + "''", plain(32765) + "'';");
  expect_refused(open_literal(32769), kWriteSize);
}

// The size is the client's; white space may bring a long text down.
TEST_F(WriteSizes, WhiteSpaceTakesOneByte) {
  const std::string blanks(32768 - 13, ' ');
  expect_canonical("DELETE FROM T" + blanks, "DELETE FROM T;");
  expect_canonical(blanks + "DELETE FROM T", "DELETE FROM T;");
  expect_canonical("DELETE" + blanks + "FROM T", "DELETE FROM T;");
  expect_refused("DELETE FROM T " + blanks, kWriteSize);
  expect_refused(std::string(32768, ' '), kNoWordsFound);
  expect_refused(std::string(32769, ' '), kWriteSize);
}

// --- the digest -------------------------------------------------------------------------------

TEST_F(WriteClassifier, AFailedDigestIsARefusal) {
  const DigestFailure failing;
  expect_refused("UPDATE T SET A = 1", "operation digest failed");
  EXPECT_STREQ(write->digest, "");
  // It is the last of the checks.
  expect_refused("UPDATE T SET DROP = 1", kProhibited);
}

// --- order ------------------------------------------------------------------------------------

// Each text has faults of several checks; the earliest check speaks.
TEST_F(WriteClassifier, TheChecksStandInOrder) {
  struct Row {
    std::string sql;
    std::string_view message;
  };
  const Row rows[] = {
      {"-- " + std::string(32768, 'x'), kWriteSize},
      {"-- x", kComment},
      {"DROP # x", kComment},
      {"DROP; DROP", kSecondStatement},
      {"SELECT 'x", kOpenLiteral},
      {"DROP", kNoWordsFound},
      {"DROP TABLE SECRET", kNoWrite},
      {"DELETE FROM SECRET WHERE DROP = 1", kDeniedWrite},
      {"UPDATE SECRET; DROP TABLE T", kSecondStatement},
      {"DELETE FROM T WHERE DROP = 1", kProhibited},
  };
  for (const Row& row : rows) expect_refused(row.sql, row.message);
  policy->write_type_mask = kInsert;
  expect_refused("DELETE FROM T WHERE DROP = 1", kDeniedWrite);
  writes_switch.set("1");
  expect_refused("", kWritesOff);
  expect_refused(std::string(32769, 'x'), kWritesOff);
  writes_switch.unset();
  policy->valid = false;
  expect_refused("-- x", kWritesOff);
}

TEST_F(WriteClassifier, TheTestedRefusals) {
  expect_refused("UPDATE t SET a = 1; UPDATE t SET a = 2", kSecondStatement);
  EXPECT_TRUE(classify("DELETE FROM t;   "));
  expect_refused("DELETE t WHERE a = 1", kNoWrite);
  expect_refused("MERGE INTO t", kNoWrite);
  expect_refused("UPDATE T SET A = 1 -- only one", kComment);
  expect_refused("UPDATE T SET A = \"x;y\"", kSecondStatement);
  expect_refused("UPDATE T SET A = \"x--y\"", kComment);
  expect_refused("UPDATE T SET A = \"/*\"", kComment);
  expect_refused("UPDATE T SET A = /*! 1 */ 2", kComment);
  expect_refused("UPDATE T SET A = 'it's'", kOpenLiteral);
}

TEST_F(WriteClassifier, ReadsNoByteAroundAText) {
  for (const std::string sql :
       {"insert into t values ('a''b', 'c') ; ", "update t set a = \"x\" where b='--' and c=1",
        "delete from t where a='/*' -- x", "9 update 't' set x='drop' # y",
        "delete from t where \xC3\xA9"}) {
    for (std::size_t cut = 0; cut <= sql.size(); ++cut) {
      static_cast<void>(classify(sql.substr(0, cut)));
      static_cast<void>(classify(sql.substr(cut), GuardSide::kBefore));
    }
  }
}

}  // namespace
}  // namespace kova::testing
