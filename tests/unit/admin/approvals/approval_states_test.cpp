// Joining the journal, the markers and the audit log; removable markers.
#include "admin/approvals/approval_states.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "admin/approvals/clean.h"
#include "support/temporary_directory.h"

namespace kova::admin {
namespace {

constexpr UnixMs kStart = 1700000000000;
constexpr UnixMs kMinute = 60000;
constexpr UnixMs kHour = 60 * kMinute;

std::string nonce(int number) {
  const std::string digits = std::to_string(number);
  return std::string(32 - digits.size(), 'a') + digits;
}

Decision approved(int number, UnixMs when, const std::string& table = "T",
                  const std::string& policy = "sales") {
  return {.timestamp = time_text(when),
          .decision = std::string(kApproved),
          .person = "alice",
          .host = "h",
          .reason = "r",
          .policy = policy,
          .client_id = "c",
          .database = "D",
          .type = "DELETE",
          .table = table,
          .statement = {},
          .digest = "00",
          .nonce = nonce(number),
          .expires_at = time_text(when + 5 * kMinute)};
}

Decision declined(UnixMs when) {
  Decision decision = approved(0, when);
  decision.decision = kDeclined;
  decision.nonce.reset();
  decision.expires_at.reset();
  return decision;
}

Marker marker(int number, UnixMs time) {
  return {.nonce = nonce(number), .name = nonce(number) + ".used", .time = time};
}

AuditUse use(UnixMs begin, UnixMs end, const std::string& table = "T",
             const std::string& policy = "sales") {
  return {.begin = begin, .end = end, .policy = policy, .table = table};
}

/// Each approval as "state used_at", without the time when there is none.
std::vector<std::string> states(const std::vector<Decision>& decisions,
                                const std::vector<Marker>& markers,
                                const std::vector<AuditUse>& uses, UnixMs now) {
  std::vector<std::string> found;
  for (const Approval& approval : join_approvals("sales", decisions, markers, uses, now)) {
    found.emplace_back(approval.state);
    if (approval.used_at) {
      found.back() += " +" + std::to_string((*parse_time(*approval.used_at) - kStart) / 1000);
    }
  }
  return found;
}

using Found = std::vector<std::string>;

TEST(ApprovalStates, FollowTheClockAndTheMarkers) {
  EXPECT_EQ(states({}, {}, {}, kStart), Found{});
  EXPECT_EQ(states({approved(1, kStart)}, {}, {}, kStart + 5 * kMinute), Found{"pending"});
  EXPECT_EQ(states({approved(1, kStart)}, {}, {}, kStart + 5 * kMinute + 1), Found{"expired"});
  EXPECT_EQ(states({declined(kStart)}, {}, {}, kStart + kHour), Found{"declined"});
  EXPECT_EQ(states({approved(1, kStart), declined(kStart)}, {marker(1, kStart + 7000)}, {},
                   kStart + kHour),
            (Found{"used +7", "declined"}));
}

TEST(ApprovalStates, AMarkerWithoutALineIsAnAlarm) {
  EXPECT_EQ(states({approved(1, kStart)}, {marker(2, kStart + 3000)}, {}, kStart),
            (Found{"pending", "unjournaled +3"}));
  const auto found = join_approvals("sales", {}, std::vector{marker(2, kStart)}, {}, kStart);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].nonce, nonce(2));
  EXPECT_FALSE(found[0].digest || found[0].table || found[0].decided_at);
}

TEST(ApprovalStates, ANonceIsComparedIgnoringCase) {
  Decision decision = approved(1, kStart);
  for (char& c : *decision.nonce) c = c == 'a' ? 'A' : c;
  EXPECT_EQ(states({decision}, {marker(1, kStart)}, {}, kStart), Found{"used +0"});
}

TEST(ApprovalStates, LinesOfAnotherPolicyCountOnlyWithAMarkerHere) {
  const Decision other = approved(1, kStart, "T", "stock");
  EXPECT_EQ(states({other}, {}, {}, kStart), Found{});
  EXPECT_EQ(states({other}, {marker(1, kStart)}, {}, kStart), Found{"used +0"});
}

TEST(ApprovalStates, AUseOfTheAuditLogBelongsToItsMarker) {
  EXPECT_EQ(states({approved(1, kStart)}, {marker(1, kStart + 1000)},
                   {use(kStart + 1000, kStart + 4000)}, kStart),
            Found{"used +1"});
  // An unjournaled one is named once, with the table that the log knows.
  const auto found = join_approvals("sales", {}, std::vector{marker(1, kStart)},
                                    std::vector{use(kStart, kStart)}, kStart);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].table, "T");
}

TEST(ApprovalStates, AUseWithoutAMarkerBelongsToADecisionThatWasValidThen) {
  const std::vector<Decision> decisions{approved(1, kStart, "U"), approved(2, kStart, "T")};
  EXPECT_EQ(states(decisions, {}, {use(kStart + 6000, kStart + 9000)}, kStart + kHour),
            (Found{"expired", "used +9"}));
  EXPECT_EQ(
      states(decisions, {}, {use(kStart + 6 * kMinute, kStart + 6 * kMinute)}, kStart + kHour),
      (Found{"expired", "expired", "unjournaled +360"}));
  EXPECT_EQ(states(decisions, {}, {use(kStart - kMinute, kStart - kMinute)}, kStart),
            (Found{"pending", "pending", "unjournaled +-60"}));
}

TEST(ApprovalStates, TwoUsesNeedTwoDecisions) {
  const AuditUse one = use(kStart + 1000, kStart + 1000);
  EXPECT_EQ(states({approved(1, kStart)}, {marker(1, kStart + 1000)}, {one, one}, kStart),
            (Found{"used +1", "unjournaled +1"}));
}

TEST(ApprovalStates, UsesOfAnotherPolicyDoNotCount) {
  EXPECT_EQ(states({}, {}, {use(kStart, kStart, "T", "stock")}, kStart), Found{});
}

TEST(AuditUses, AreTheRecordsOfAcceptedTokens) {
  const std::string record =
      R"({"timestamp":"2023-11-14T22:13:20.500Z","tool":"kova_execute","policy":"sales",)"
      R"("policy_decision":"approval_accepted","objects":"T","duration_ms":300,"status":"ok"})"
      "\r";
  std::vector<AuditUse> uses;
  add_audit_use(record, uses);
  ASSERT_EQ(uses.size(), 1U);
  EXPECT_EQ(uses[0].end, kStart + 500);
  EXPECT_EQ(uses[0].begin, kStart + 200);
  EXPECT_EQ(uses[0].policy + uses[0].table, "salesT");
  std::string other = record;
  other.replace(other.find("accepted"), 8, "required");
  add_audit_use(other, uses);
  add_audit_use(record.substr(0, record.size() - 5), uses);
  add_audit_use("", uses);
  EXPECT_EQ(uses.size(), 1U);
}

TEST(RemovableMarkers, ExpiredMoreThanADayAgoAndHaveALine) {
  const std::vector<Decision> decisions{approved(1, kStart), declined(kStart)};
  const std::vector<Marker> markers{marker(1, kStart), marker(2, kStart)};
  const UnixMs last = kStart + 5 * kMinute + 24 * kHour;
  EXPECT_TRUE(removable_markers(decisions, markers, last).empty());
  const auto removable = removable_markers(decisions, markers, last + 1);
  ASSERT_EQ(removable.size(), 1U);
  EXPECT_EQ(removable[0].name, nonce(1) + ".used");
}

TEST(Markers, AreFilesOfTheirForm) {
  const testing::TemporaryDirectory folder;
  for (const std::string& name : {nonce(1) + ".used", nonce(2) + ".use", nonce(3) + "0.used",
                                  "x" + nonce(4).substr(1) + ".used", std::string("notes")}) {
    testing::write_file(folder.file(name), "");
  }
  const auto markers = read_markers(folder.path());
  ASSERT_EQ(markers.size(), 1U);
  EXPECT_EQ(markers[0].nonce, nonce(1));
  EXPECT_NEAR(static_cast<double>(markers[0].time), static_cast<double>(now_ms()), kHour);
  remove_marker(folder.path(), markers[0]);
  EXPECT_TRUE(read_markers(folder.path()).empty());
  EXPECT_ANY_THROW(static_cast<void>(read_markers(folder.file("gone"))));
}

}  // namespace
}  // namespace kova::admin
