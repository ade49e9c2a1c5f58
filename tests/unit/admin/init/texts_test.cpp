#include "admin/init/texts.h"

#include <gtest/gtest.h>

#include <string>

#include "admin/common/environment_file.h"
#include "admin/common/refusal.h"

namespace kova::admin {
namespace {

TEST(SplitNames, PartsWithoutBlanks) {
  EXPECT_EQ(split_names(""), Names());
  EXPECT_EQ(split_names(" , ,"), Names());
  EXPECT_EQ(split_names("A"), Names{"A"});
  EXPECT_EQ(split_names(" A , B,C "), (Names{"A", "B", "C"}));
}

TEST(QuotedValue, IsReadBackAsItWas) {
  for (const std::string value : {"plain", "", " blanks ", "it's", "a\"b", "C:\\x\\y", "$HOME `x`",
                                  "it's \"all\" $of \\ `them`", "#;", "caf\xc3\xa9"}) {
    const std::string line = "NAME=" + std::string(quoted_value(value).view()) + "\n";
    const auto entries = parse_environment(line);
    ASSERT_EQ(entries.size(), 1U) << line;
    EXPECT_EQ(entries[0].value.view(), value);
  }
}

TEST(QuotedValue, NoLineHoldsALineEnd) {
  EXPECT_THROW(static_cast<void>(quoted_value("a\nb")), Refusal);
  EXPECT_THROW(static_cast<void>(quoted_value("a\rb")), Refusal);
  EXPECT_THROW(static_cast<void>(quoted_value(std::string_view("a\0b", 3))), Refusal);
}

TEST(DrawSecrets, LongAndDifferent) {
  const DrawnSecrets first = draw_secrets();
  const DrawnSecrets second = draw_secrets();
  EXPECT_EQ(first.approval.view().size(), 64U);
  EXPECT_EQ(first.bearer_token.view().size(), 64U);
  EXPECT_NE(first.approval.view(), first.bearer_token.view());
  EXPECT_NE(first.approval.view(), second.approval.view());
}

Setup setup() {
  Setup made;
  made.folder = "/srv/desk";
  made.server = "db.example";
  made.port = "2300";
  made.database = "SALES";
  made.user = "reader";
  made.password = SecretText(std::string_view("pass"));
  made.client_id = "desk";
  made.name = "sales";
  made.tables = {"ORDERS"};
  made.write_tables = {"NOTES"};
  return made;
}

TEST(EnvironmentText, SecretsOnlyWhereTheyAreNeeded) {
  auto made = setup();
  const DrawnSecrets secrets = draw_secrets();
  const auto holds = [&](std::string_view name) {
    return environment_text(made, secrets).view().find("\n" + std::string(name) + "=") !=
           std::string_view::npos;
  };
  EXPECT_TRUE(holds("KOVA_MCP_PASSWORD"));
  EXPECT_FALSE(holds("KOVA_MCP_APPROVAL_SECRET"));
  EXPECT_FALSE(holds("KOVA_MCP_HTTP_BEARER_TOKEN"));
  made.writes = made.http = true;
  EXPECT_TRUE(holds("KOVA_MCP_APPROVAL_SECRET"));
  EXPECT_TRUE(holds("KOVA_MCP_HTTP_BEARER_TOKEN"));
}

TEST(PolicyDocument, WritesOnlyWithApproval) {
  auto made = setup();
  Json policy = policy_document(made, "/srv/desk/approvals");
  EXPECT_EQ(policy.size(), 16U);
  EXPECT_FALSE(policy.at("writes_enabled").get<bool>());
  EXPECT_TRUE(policy.at("write_tables").empty());
  made.writes = true;
  policy = policy_document(made, "/srv/desk/approvals");
  EXPECT_TRUE(policy.at("writes_enabled").get<bool>());
  EXPECT_TRUE(policy.at("approval_required").get<bool>());
  EXPECT_EQ(policy.at("write_tables"), Json({"NOTES"}));
}

TEST(ClientEntries, AnAbsoluteCommandAndNoSecret) {
  const auto entries = client_entries(setup(), "/opt/kova-admin");
  ASSERT_EQ(entries.size(), 4U);
  for (const ClientEntry& entry : entries) {
    const Json& servers = entry.document.front();
    ASSERT_EQ(servers.size(), 1U);
    EXPECT_EQ(servers.at("sales").at("command"), "/opt/kova-admin") << entry.file_name;
    EXPECT_EQ(entry.document.dump().find("pass"), std::string::npos);
  }
}

}  // namespace
}  // namespace kova::admin
