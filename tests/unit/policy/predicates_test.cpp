// The yes-or-no questions to the policy, as full truth tables, and the kill switches.
#include "policy/predicates.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/environment.h"
#include "support/guard_page.h"
#include "unit/policy/policy_document.h"

namespace kova::testing {
namespace {

constexpr const char* kUnsafeNames[] = {"",   "a-b", "a.b", "a b", " a", "a ",       "a;",
                                        "a'", "a\"", "a\n", "a,b", "a*", "\xC3\xA9", "a\x7F",
                                        "a@", "a[",  "a`",  "a{",  "a/", "a:"};

TEST(PolicyEnvFlag, IsOneOfFourWords) {
  ScopedEnvironment variable("KOVA_TEST_FLAG");
  EXPECT_FALSE(policy_env_flag("KOVA_TEST_FLAG"));
  for (const char* value : {"1", "true", "TRUE", "True", "yes", "Yes", "YES", "on", "On", "ON"}) {
    variable.set(value);
    EXPECT_TRUE(policy_env_flag("KOVA_TEST_FLAG")) << value;
  }
  for (const char* value :
       {"",       "0",       "01", "11", "1 ", " 1",  "true ", " true",  "false", "no", "off",
        "enable", "enabled", "t",  "y",  "o",  "onn", "yess",  "true\n", "2",     "-1", "tru"}) {
    variable.set(value);
    EXPECT_FALSE(policy_env_flag("KOVA_TEST_FLAG")) << value;
  }
}

TEST(PolicyEnvFlag, IsReadAtEachCall) {
  ScopedEnvironment variable("KOVA_TEST_FLAG", "1");
  EXPECT_TRUE(policy_env_flag("KOVA_TEST_FLAG"));
  variable.set("0");
  EXPECT_FALSE(policy_env_flag("KOVA_TEST_FLAG"));
}

TEST(PolicySafeName, IsOneTo63LettersDigitsAndUnderscores) {
  for (const char* name : {"a", "Z", "0", "9", "_", "9lives", "A_z09", "__", "select"})
    EXPECT_TRUE(policy_safe_name(name)) << name;
  for (const char* name : kUnsafeNames) EXPECT_FALSE(policy_safe_name(name)) << name;
  EXPECT_TRUE(policy_safe_name(std::string(63, 'n')));
  EXPECT_FALSE(policy_safe_name(std::string(64, 'n')));
  EXPECT_FALSE(policy_safe_name(std::string_view("a\0b", 3)));
}

TEST(PolicySafeName, AdmitsExactly63Bytes) {
  int admitted = 0;
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const GuardedText text(std::string_view(&c, 1));
    if (policy_safe_name(text.view())) ++admitted;
  }
  EXPECT_EQ(admitted, 26 + 26 + 10 + 1);
}

TEST(PolicyListContains, ComparesIgnoringCase) {
  const auto policy = std::make_unique<McpPolicy>();
  NameList& list = policy->allowed_tables;
  EXPECT_FALSE(policy_list_contains(list, "ORDERS"));
  EXPECT_FALSE(policy_list_contains(list, ""));
  fill(list, {"ORDERS", "items", std::string(63, 'n')});
  for (const char* name : {"ORDERS", "orders", "OrDeRs", "ITEMS", "Items"})
    EXPECT_TRUE(policy_list_contains(list, name)) << name;
  for (const char* name : {"", "ORDER", "ORDERSS", "_ORDERS", "ITEM", "ORDERS "})
    EXPECT_FALSE(policy_list_contains(list, name)) << name;
  EXPECT_TRUE(policy_list_contains(list, std::string(63, 'N')));
  EXPECT_FALSE(policy_list_contains(list, std::string(62, 'N')));
  // Entries behind the count do not take part.
  list.count = 1;
  EXPECT_TRUE(policy_list_contains(list, "ORDERS"));
  EXPECT_FALSE(policy_list_contains(list, "items"));
}

TEST(PolicyListContains, FindsTheLastOf64) {
  const auto policy = std::make_unique<McpPolicy>();
  NameList& list = policy->allowed_tables;
  for (; list.count < 64; ++list.count)
    TextOut(list.names[list.count]).copy_cut("T" + std::to_string(list.count));
  EXPECT_TRUE(policy_list_contains(list, "t63"));
  EXPECT_FALSE(policy_list_contains(list, "t64"));
}

// Every state of the flags that a question could look at.
template <typename Question>
void for_every_state(Question question) {
  for (unsigned bits = 0; bits < 32; ++bits) {
    const auto policy = loaded_policy();
    policy->valid = bits & 1;
    policy->configured = bits & 2;
    policy->reads_enabled = bits & 4;
    policy->provider_reads_enabled = bits & 8;
    policy->writes_enabled = bits & 16;
    SCOPED_TRACE(::testing::Message()
                 << "valid " << policy->valid << " configured " << policy->configured << " reads "
                 << policy->reads_enabled << " providers " << policy->provider_reads_enabled
                 << " writes " << policy->writes_enabled);
    question(*policy);
  }
}

TEST(PolicyTableAllowed, ForReading) {
  for_every_state([](const McpPolicy& policy) {
    const bool any_table = policy.valid && !policy.configured;
    const bool listed = policy.valid && policy.configured && policy.reads_enabled;
    EXPECT_EQ(policy_table_allowed(policy, "orders", TableUse::kRead), any_table || listed);
    EXPECT_EQ(policy_table_allowed(policy, "ITEMS", TableUse::kRead), any_table || listed);
    EXPECT_EQ(policy_table_allowed(policy, "OTHER", TableUse::kRead), any_table);
    EXPECT_EQ(policy_table_allowed(policy, "LOG", TableUse::kRead), any_table);
  });
}

TEST(PolicyTableAllowed, ForWriting) {
  for_every_state([](const McpPolicy& policy) {
    const bool listed = policy.valid && policy.configured;
    EXPECT_EQ(policy_table_allowed(policy, "log", TableUse::kWrite), listed);
    EXPECT_FALSE(policy_table_allowed(policy, "ORDERS", TableUse::kWrite));
    EXPECT_FALSE(policy_table_allowed(policy, "OTHER", TableUse::kWrite));
  });
}

TEST(PolicyColumnAllowed, UnlessItIsDenied) {
  for_every_state([](const McpPolicy& policy) {
    EXPECT_EQ(policy_column_allowed(policy, "ssn"), policy.valid && !policy.configured);
    EXPECT_EQ(policy_column_allowed(policy, "NAME"), policy.valid);
  });
}

TEST(PolicyCollectionAllowed, WhenItIsListed) {
  for_every_state([](const McpPolicy& policy) {
    EXPECT_EQ(policy_collection_allowed(policy, "docs"), policy.valid);
    EXPECT_EQ(policy_collection_allowed(policy, "OTHER"), policy.valid && !policy.configured);
  });
}

TEST(PolicyPredicates, RefuseEveryUnsafeName) {
  const std::string long_name(64, 'n');
  const auto loaded = loaded_policy();
  const auto none = no_policy();
  // A list cannot hold such a name; if it did, the name would still be refused.
  fill(loaded->allowed_tables, {"a-b"});
  fill(loaded->write_tables, {"a-b"});
  fill(loaded->allowed_collections, {"a-b"});
  const auto refuse_all = [&](std::string_view name) {
    for (const McpPolicy* policy : {loaded.get(), none.get()}) {
      EXPECT_FALSE(policy_table_allowed(*policy, name, TableUse::kRead)) << name;
      EXPECT_FALSE(policy_table_allowed(*policy, name, TableUse::kWrite)) << name;
      EXPECT_FALSE(policy_column_allowed(*policy, name)) << name;
      EXPECT_FALSE(policy_collection_allowed(*policy, name)) << name;
    }
  };
  for (const char* name : kUnsafeNames) refuse_all(name);
  refuse_all(long_name);
}

TEST(PolicyPredicates, AdmitNamesOf63CharactersWithoutAPolicy) {
  const std::string name(63, 'n');
  const auto none = no_policy();
  EXPECT_TRUE(policy_table_allowed(*none, name, TableUse::kRead));
  EXPECT_FALSE(policy_table_allowed(*none, name, TableUse::kWrite));
  EXPECT_TRUE(policy_column_allowed(*none, name));
  EXPECT_TRUE(policy_collection_allowed(*none, name));
}

TEST(PolicyProviderReads, DoNotLookAtReadsEnabled) {
  ScopedEnvironment kill(kDisableProviders);
  for (const bool killed : {false, true}) {
    killed ? kill.set("on") : kill.unset();
    for_every_state([&](const McpPolicy& policy) {
      EXPECT_EQ(policy_provider_reads_allowed(policy),
                policy.valid && policy.provider_reads_enabled && !killed);
    });
  }
}

TEST(PolicyWrites, NeedAPolicyTypesTablesAndNoKillSwitch) {
  ScopedEnvironment kill(kDisableWrites);
  for (const bool killed : {false, true}) {
    killed ? kill.set("TRUE") : kill.unset();
    for_every_state([&](const McpPolicy& policy) {
      const bool enabled = policy.valid && policy.configured && policy.writes_enabled && !killed;
      EXPECT_EQ(policy_writes_allowed(policy), enabled);
      McpPolicy changed = policy;
      changed.write_type_mask = 0;
      EXPECT_FALSE(policy_writes_allowed(changed));
      changed.write_type_mask = 4;
      EXPECT_EQ(policy_writes_allowed(changed), enabled);
      changed.write_tables.count = 0;
      EXPECT_FALSE(policy_writes_allowed(changed));
    });
  }
}

TEST(PolicyKillSwitches, AreTwo) {
  const auto policy = loaded_policy();
  policy->writes_enabled = true;
  ScopedEnvironment providers("KOVA_MCP_DISABLE_PROVIDERS", "1");
  ScopedEnvironment writes("KOVA_MCP_DISABLE_WRITES");
  EXPECT_FALSE(policy_provider_reads_allowed(*policy));
  EXPECT_TRUE(policy_writes_allowed(*policy));
  providers.set("enable");
  writes.set("1");
  EXPECT_TRUE(policy_provider_reads_allowed(*policy));
  EXPECT_FALSE(policy_writes_allowed(*policy));
}

TEST_F(PolicyLoading, AFailedLoadAnswersNoToEverything) {
  expect_refused(PolicyDocument().set("approval_ttl_seconds", "0"), kTtlMessage);
  EXPECT_FALSE(policy_table_allowed(*policy, "ORDERS", TableUse::kRead));
  EXPECT_FALSE(policy_table_allowed(*policy, "LOG", TableUse::kWrite));
  EXPECT_FALSE(policy_column_allowed(*policy, "NAME"));
  EXPECT_FALSE(policy_collection_allowed(*policy, "DOCS"));
  EXPECT_FALSE(policy_provider_reads_allowed(*policy));
  EXPECT_FALSE(policy_writes_allowed(*policy));
}

}  // namespace
}  // namespace kova::testing
