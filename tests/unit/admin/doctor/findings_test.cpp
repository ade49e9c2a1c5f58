#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "admin/doctor/doctor.h"

namespace kova::admin {
namespace {

TEST(Findings, TheWorstFindingIsTheStatus) {
  Findings findings("x");
  findings.note("a");
  EXPECT_TRUE(findings.is_ok());
  findings.fail("b", "mend b");
  findings.warn("c", "mend c");
  const Check check = findings.finish();
  EXPECT_EQ(check.name, "x");
  EXPECT_EQ(check.status, CheckStatus::kFail);
  EXPECT_EQ(check.detail, "a; b; c");
  EXPECT_EQ(check.advice, "mend b; mend c");
}

TEST(Findings, TheSameFindingIsToldOnce) {
  Findings findings("x");
  findings.warn("a", "mend");
  findings.warn("a", "mend");
  findings.warn("b", "mend");
  EXPECT_EQ(findings.finish().detail, "a; b");
  EXPECT_EQ(findings.finish().advice, "mend");
}

TEST(Findings, ACheckWithoutFindingsIsOk) {
  const Check check = Findings("x").finish();
  EXPECT_EQ(check.status, CheckStatus::kOk);
  EXPECT_EQ(check.advice, "");
}

TEST(OverallStatus, IsTheWorstOfAll) {
  const Check ok{.name = "a", .status = CheckStatus::kOk, .detail = "d", .advice = ""};
  const Check warn{.name = "b", .status = CheckStatus::kWarn, .detail = "d", .advice = "x"};
  const Check fail{.name = "c", .status = CheckStatus::kFail, .detail = "d", .advice = "x"};
  EXPECT_EQ(overall_status({}), CheckStatus::kOk);
  EXPECT_EQ(overall_status({ok, warn, ok}), CheckStatus::kWarn);
  EXPECT_EQ(overall_status({fail, warn, ok}), CheckStatus::kFail);
}

TEST(ReportText, AdviceStandsUnderItsCheckAndColourIsNeverAlone) {
  const std::vector<Check> checks = {
      {.name = "policy", .status = CheckStatus::kFail, .detail = "bad\x1b[2J", .advice = "mend"}};
  const std::string plain = report_text(checks, false);
  EXPECT_EQ(plain.find('\x1b'), std::string::npos);
  EXPECT_EQ(plain.rfind("FAIL  policy", 0), 0U);
  EXPECT_NE(plain.find("\n                          -> mend\n"), std::string::npos);
  EXPECT_NE(report_text(checks, true).find("FAIL"), std::string::npos);
}

}  // namespace
}  // namespace kova::admin
