// The journal's lines, read and written.
#include "admin/approve/journal.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "admin/common/paths.h"
#include "admin/common/refusal.h"
#include "support/temporary_directory.h"

namespace kova::admin {
namespace {

Decision approved() {
  return {.timestamp = "2024-05-06T07:08:09.010Z",
          .decision = std::string(kApproved),
          .person = "alice (as root)",
          .host = "vault",
          .reason = "ticket 7",
          .policy = "sales",
          .client_id = "desk",
          .database = "SALES",
          .type = "DELETE",
          .table = "T",
          .statement = "DELETE FROM T;",
          .digest = "cb06",
          .nonce = "0011",
          .expires_at = "2024-05-06T07:13:09.000Z"};
}

TEST(Journal, ALineHasEveryMemberInOrder) {
  EXPECT_EQ(journal_line(approved()),
            R"({"timestamp":"2024-05-06T07:08:09.010Z","decision":"approved",)"
            R"x("operator":"alice (as root)","host":"vault","reason":"ticket 7","policy":"sales",)x"
            R"("client_id":"desk","database":"SALES","type":"DELETE","table":"T",)"
            R"("statement":"DELETE FROM T;","digest":"cb06","nonce":"0011",)"
            R"("expires_at":"2024-05-06T07:13:09.000Z"})"
            "\n");
}

TEST(Journal, WhatDoesNotApplyIsNull) {
  Decision declined = approved();
  declined.decision = kDeclined;
  declined.statement.reset();
  declined.nonce.reset();
  declined.expires_at.reset();
  const std::string line = journal_line(declined);
  EXPECT_NE(line.find(R"("statement":null,"digest":"cb06","nonce":null,"expires_at":null})"),
            std::string::npos);
  const auto read = parse_journal(line);
  ASSERT_EQ(read.size(), 1U);
  EXPECT_FALSE(read[0].statement || read[0].nonce || read[0].expires_at);
}

TEST(Journal, TextIsEscapedToASCII) {
  Decision decision = approved();
  decision.reason = "a\nb\x1b[2J\xE2\x80\xAE\xC3\xBC\x7F\"\\";
  const std::string line = journal_line(decision);
  const std::string escaped = R"x("reason":"a\nb\u001b[2J\u202e\u00fc\u007f\"\\",)x";
  EXPECT_NE(line.find(escaped), std::string::npos);
  for (const char c : line.substr(0, line.size() - 1)) EXPECT_TRUE(c >= ' ' && c < 0x7F);
  EXPECT_EQ(parse_journal(line).at(0).reason, decision.reason);
}

TEST(Journal, RefusesALineThatIsNone) {
  const std::string good = journal_line(approved());
  const auto refusal_of = [&](const std::string& text) -> std::string {
    try {
      static_cast<void>(parse_journal(text));
    } catch (const Refusal& refusal) {
      return refusal.what();
    }
    return "accepted";
  };
  const auto with = [&](const std::string& from, const std::string& to) {
    std::string line = good;
    return good + line.replace(line.find(from), from.size(), to);
  };
  const auto at = [&](const char* name, const char* why) {
    return "line 2, column " + std::to_string(good.find('"' + std::string(name) + "\":") + 1) +
           ": " + why;
  };
  EXPECT_EQ(refusal_of(good + good), "accepted");
  EXPECT_EQ(refusal_of(""), "accepted");
  EXPECT_EQ(refusal_of(good + "{}"), "line 2, column 3: the line has no end");
  EXPECT_EQ(refusal_of(good + "\n"), "line 2, column 1: the line is no JSON object");
  EXPECT_EQ(refusal_of("[]\n"), "line 1, column 1: the line is no JSON object");
  EXPECT_EQ(refusal_of(R"({"a":x})"
                       "\n"),
            "line 1, column 6: the line is no JSON object");
  EXPECT_EQ(refusal_of("{}\n"), "line 1, column 1: the member timestamp is missing");
  EXPECT_EQ(refusal_of(with(R"("host":"vault",)", "")),
            "line 2, column 1: the member host is missing");
  EXPECT_EQ(refusal_of(with("\"vault\"", "7")), at("host", "the member host is no text"));
  EXPECT_EQ(refusal_of(with("\"0011\"", "7")), at("nonce", "the member nonce is no text"));
  EXPECT_EQ(refusal_of(with("approved", "adopted")), at("decision", "the decision is unknown"));
  EXPECT_EQ(refusal_of(with("05-06T07:08", "05-36T07:08")),
            at("timestamp", "the timestamp is invalid"));
  EXPECT_EQ(refusal_of(with("07:13:09", "07:73:09")), at("expires_at", "the expiry is invalid"));
  EXPECT_EQ(refusal_of(with("\"0011\"", "null")),
            at("nonce", "the nonce and the expiry do not fit the decision"));
  EXPECT_EQ(refusal_of(with("approved", "declined")),
            at("nonce", "the nonce and the expiry do not fit the decision"));
}

TEST(Journal, AppendsToTheFileAndReadsItBack) {
  const testing::TemporaryDirectory folder;
  const std::string path = folder.file("j\xC3\xBCrnal");
  EXPECT_TRUE(read_journal(path).empty());
  append_decision(path, approved());
  append_decision(path, approved());
  EXPECT_EQ(read_journal(path).size(), 2U);
  EXPECT_EQ(testing::read_file(path), journal_line(approved()) + journal_line(approved()));
  EXPECT_THROW(append_decision(folder.path(), approved()), Refusal);
  EXPECT_THROW(append_decision(folder.file("no/journal"), approved()), Refusal);
}

TEST(Journal, EndsInALineEndOrTakesNoMore) {
  const testing::TemporaryDirectory folder;
  const std::string path = folder.file("journal");
  check_last_line(path);
  testing::write_file(path, "");
  check_last_line(path);
  testing::write_file(path, journal_line(approved()));
  check_last_line(path);
  testing::write_file(path, journal_line(approved()) + "{");
  EXPECT_THROW(check_last_line(path), Refusal);
}

TEST(Journal, IsNamedByTheOptionOrTheEnvironment) {
  EXPECT_EQ(journal_path("a"), "a");
  EXPECT_THROW(static_cast<void>(journal_path("")), Refusal);
}

}  // namespace
}  // namespace kova::admin
