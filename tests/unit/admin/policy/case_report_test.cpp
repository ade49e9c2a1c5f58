// The outcomes of cases as TAP and JUnit.
#include "admin/policy/case_report.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kova::admin {
namespace {

PolicyCase case_named(const std::string& name, Verdict expect) {
  PolicyCase made;
  made.name = name;
  made.expect = expect;
  return made;
}

CaseOutcome outcome_of(const PolicyCase& expected, Verdict got) {
  CaseOutcome outcome{
      .expected = &expected, .got = {}, .as_expected = false, .unexpected_allow = false};
  outcome.got.verdict = got;
  outcome.as_expected = expected.expect == got;
  outcome.unexpected_allow = got == Verdict::kAllow && !outcome.as_expected;
  return outcome;
}

TEST(CaseReport, TapNamesAreEscaped) {
  const PolicyCase hostile = case_named("# TODO \\ \n\x1B\xE2\x80\xAE", Verdict::kDeny);
  const std::string text = tap_report({outcome_of(hostile, Verdict::kAllow)});
  EXPECT_NE(text.find("1..1\n# unexpected allow: \\# TODO \\\\ \\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\nnot ok 1 - \\# TODO \\\\ \\n"), std::string::npos) << text;
  EXPECT_EQ(text.find('\x1B'), std::string::npos);
  EXPECT_EQ(text.find("\xE2\x80\xAE"), std::string::npos);
}

TEST(CaseReport, AMessageIsOneYamlScalar) {
  const PolicyCase plain = case_named("x", Verdict::kAllow);
  CaseOutcome outcome = outcome_of(plain, Verdict::kDeny);
  outcome.got.message = "a: \"b\"\n...";
  EXPECT_EQ(tap_report({outcome}),
            "TAP version 13\n1..1\nnot ok 1 - x\n  ---\n  expected: allow\n  got: deny\n"
            "  message: \"a: \\\"b\\\"\\n...\"\n  ...\n");
}

TEST(CaseReport, JunitHoldsNoMarkup) {
  const PolicyCase hostile = case_named("<a b=\"&\">\x01", Verdict::kDeny);
  const PolicyCase plain = case_named("y", Verdict::kDeny);
  const std::string text =
      junit_report("p", {outcome_of(hostile, Verdict::kAllow), outcome_of(plain, Verdict::kDeny)});
  EXPECT_NE(text.find("tests=\"2\" failures=\"1\""), std::string::npos);
  EXPECT_NE(text.find("name=\"&lt;a b=&quot;&amp;&quot;&gt;"), std::string::npos) << text;
  EXPECT_NE(text.find("type=\"unexpected allow\" message=\"expected deny, got allow\""),
            std::string::npos);
  EXPECT_EQ(text.find('\x01'), std::string::npos);
}

}  // namespace
}  // namespace kova::admin
