// The values of a policy file: identity, flags, lists, write types, lifetimes and the approval
// directory.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "unit/policy/policy_document.h"

namespace kova::testing {
namespace {

std::string literal_of(std::size_t length) {
  return json_literal(std::string(length, 'n'));
}

std::string list_of(int count, const std::string& prefix = "T") {
  std::string list = "[";
  for (int i = 0; i < count; ++i)
    list += (i == 0 ? "\"" : ",\"") + prefix + std::to_string(i) + "\"";
  return list + "]";
}

TEST_F(PolicyLoading, TheVersionIsTheInteger1) {
  for (const char* version : {"2", "0", "10", "11", "\"1\"", "1.0", "1e0", "1E0", "-1", "-0",
                              "true", "null", "[1]", "{\"version\":1}", "[]", "4294967297",
                              "18446744073709551617", "100000000000000000000000000000001"}) {
    SCOPED_TRACE(version);
    expect_refused(PolicyDocument().set("version", version), kIdentityMessage);
  }
  for (const char* version : {"01", "+1", "1.", "0x1"}) {
    SCOPED_TRACE(version);
    expect_refused(PolicyDocument().set("version", version), kSchemaMessage);
  }
}

TEST_F(PolicyLoading, TheNameIsASafeName) {
  for (const char* name :
       {"\"\"", "\"a-b\"", "\"a.b\"", "\"a b\"", "\" a\"", "\"a\\n\"", "\"\xC3\xA9\"", "\"a/b\"",
        "\"a\\\"\"", "5", "null", "true", "[]", "[\"a\"]", "{}", "\"\\ud800\"", "\"\\u0000\""}) {
    SCOPED_TRACE(name);
    expect_refused(PolicyDocument().set("name", name), kIdentityMessage);
  }
  for (const char* name : {"\"a\"", "\"_\"", "\"9\"", "\"Az_09\"", "\"\\u0041\\u005f\""}) {
    SCOPED_TRACE(name);
    expect_loaded(PolicyDocument().set("name", name));
  }
  expect_loaded(PolicyDocument().set("name", literal_of(63)));
  EXPECT_EQ(policy->name, std::string(63, 'n'));
  expect_refused(PolicyDocument().set("name", literal_of(64)), kIdentityMessage);
  expect_refused(PolicyDocument().set("name", literal_of(5000)), kIdentityMessage);
  // The audit record of a refused policy reads the name.
  EXPECT_NE(std::memchr(policy->name, '\0', sizeof policy->name), nullptr);
}

TEST_F(PolicyLoading, TheDatabaseIsASafeName) {
  for (const char* name : {"\"\"", "\"a-b\"", "\"a.b\"", "\"a b\"", "\"a;\"", "7", "null"}) {
    SCOPED_TRACE(name);
    expect_refused(PolicyDocument().set("database", name), kIdentityMessage);
  }
  database_variable.set(std::string(63, 'n'));
  expect_loaded(PolicyDocument().set("database", literal_of(63)));
  database_variable.set(std::string(64, 'n'));
  expect_refused(PolicyDocument().set("database", literal_of(64)), kIdentityMessage);
}

// Client and user names may hold "-" and "." too, and have 95 characters.
TEST_F(PolicyLoading, IdentityNamesHaveTheirOwnRule) {
  struct Row {
    const char* key;
    ScopedEnvironment& variable;
  };
  for (const Row& row : {Row{"client_id", client_variable}, Row{"database_user", user_variable}}) {
    SCOPED_TRACE(row.key);
    for (const char* name : {"\"\"", "\"a b\"", "\"a/b\"", "\"a@b\"", "\"a,b\"", "\"a\\u0001\"",
                             "\"\xC3\xA9\"", "7", "null", "[]"}) {
      SCOPED_TRACE(name);
      expect_refused(PolicyDocument().set(row.key, name), kIdentityMessage);
    }
    for (const std::string& name :
         {std::string("a-b.c_D9"), std::string("-"), std::string("."), std::string(95, 'n')}) {
      SCOPED_TRACE(name);
      row.variable.set(name);
      expect_loaded(PolicyDocument().set(row.key, json_literal(name)));
    }
    row.variable.set(std::string(96, 'n'));
    expect_refused(PolicyDocument().set(row.key, literal_of(96)), kIdentityMessage);
    row.variable.set(row.key == std::string("client_id") ? "desk-7.client_A" : "reader-1.x");
  }
}

TEST_F(PolicyLoading, TheLaunchIdentityMustMatch) {
  struct Row {
    ScopedEnvironment& variable;
    const char* right;
  };
  for (const Row& row : {Row{client_variable, "desk-7.client_A"}, Row{database_variable, "SHOP"},
                         Row{user_variable, "reader-1.x"}}) {
    SCOPED_TRACE(row.right);
    const std::string right = row.right;
    row.variable.unset();
    expect_refused(PolicyDocument(), kLaunchMessage);
    for (const std::string& wrong : {std::string(), std::string("x"), right + "x", right.substr(1),
                                     " " + right, right + " ", right.substr(0, right.size() - 1)}) {
      row.variable.set(wrong);
      expect_refused(PolicyDocument(), kLaunchMessage);
    }
    row.variable.set(right);
    expect_loaded(PolicyDocument());
  }
}

TEST_F(PolicyLoading, TheLaunchIdentityIgnoresCase) {
  client_variable.set("DESK-7.Client_a");
  database_variable.set("shop");
  user_variable.set("READER-1.X");
  expect_loaded(PolicyDocument());
  // What the file says is what is kept.
  EXPECT_STREQ(policy->client_id, "desk-7.client_A");
  EXPECT_STREQ(policy->database, "SHOP");
  EXPECT_STREQ(policy->database_user, "reader-1.x");
}

TEST_F(PolicyLoading, FlagsAreTrueOrFalse) {
  for (const char* key :
       {"reads_enabled", "provider_reads_enabled", "writes_enabled", "approval_required"}) {
    SCOPED_TRACE(key);
    for (const char* value : {"\"true\"", "\"TRUE\"", "\"false\"", "1", "0", "null", "[]", "{}",
                              "[true]", "\"\"", "-1", "1.0"}) {
      SCOPED_TRACE(value);
      expect_refused(PolicyDocument().set(key, value), kListMessage);
    }
    for (const char* value : {"TRUE", "True", "yes", "", "truex", "tru"}) {
      SCOPED_TRACE(value);
      expect_refused(PolicyDocument().set(key, value), kSchemaMessage);
    }
    expect_loaded(PolicyDocument().set(key, "false"));
    expect_loaded(PolicyDocument()
                      .set(key, "true")
                      .set("approval_state_directory", json_literal(folder.path())));
  }
}

struct ListRow {
  const char* key;
  std::string_view message;
};

constexpr ListRow kLists[] = {
    {"allowed_tables", kListMessage},      {"denied_columns", kListMessage},
    {"allowed_collections", kListMessage}, {"write_tables", kListMessage},
    {"write_types", kWriteListMessage},
};

class PolicyLists : public PolicyLoading, public ::testing::WithParamInterface<ListRow> {};

TEST_P(PolicyLists, AreArraysOfSafeNames) {
  for (const std::string& value : {std::string("null"),
                                   std::string("{}"),
                                   std::string("\"INSERT\""),
                                   std::string("1"),
                                   std::string("true"),
                                   std::string("[1]"),
                                   std::string("[null]"),
                                   std::string("[[]]"),
                                   std::string("[[\"INSERT\"]]"),
                                   std::string("[{}]"),
                                   std::string("[\"\"]"),
                                   std::string("[\"INSERT\",\"\"]"),
                                   std::string("[\"IN-SERT\"]"),
                                   std::string("[\"IN SERT\"]"),
                                   std::string("[\"INSERT \"]"),
                                   std::string("[\"A.B\"]"),
                                   std::string("[\"\xC3\xA9\"]"),
                                   std::string("[\"\\ud800\"]"),
                                   std::string("[\"\\u0000\"]"),
                                   std::string("[\"INSERT\",\"INSERT\"]"),
                                   std::string("[\"INSERT\",\"UPDATE\",\"insert\"]"),
                                   std::string("[\"INSERT\",\"\\u0049nsert\"]"),
                                   "[" + literal_of(64) + "]",
                                   "[" + literal_of(30000) + "]",
                                   list_of(65)}) {
    SCOPED_TRACE(value.substr(0, 80));
    expect_refused(PolicyDocument().set(GetParam().key, value), GetParam().message);
  }
}

TEST_P(PolicyLists, MayBeEmpty) {
  expect_loaded(PolicyDocument().set(GetParam().key, "[]"));
  expect_loaded(PolicyDocument().set(GetParam().key, "[ ]"));
}

INSTANTIATE_TEST_SUITE_P(Every, PolicyLists, ::testing::ValuesIn(kLists),
                         [](const auto& row) { return std::string(row.param.key); });

TEST_F(PolicyLoading, ListsHoldUpTo64NamesOf63Characters) {
  const std::string prefix(61, 'T');
  for (const char* key :
       {"allowed_tables", "denied_columns", "allowed_collections", "write_tables"})
    expect_loaded(PolicyDocument().set(key, list_of(64)));
  PolicyDocument document;
  std::string list = "[";
  for (int i = 10; i < 74; ++i)
    list += (i == 10 ? "\"" : ",\"") + prefix + std::to_string(i) + "\"";
  list += "]";
  for (const char* key :
       {"allowed_tables", "denied_columns", "allowed_collections", "write_tables"})
    document.set(key, list);
  expect_loaded(document);
  for (const NameList* names : {&policy->allowed_tables, &policy->denied_columns,
                                &policy->allowed_collections, &policy->write_tables}) {
    ASSERT_EQ(names->count, 64U);
    EXPECT_EQ(names->names[0], prefix + "10");
    EXPECT_EQ(names->names[63], prefix + "73");
  }
}

TEST_F(PolicyLoading, ListEntriesAreDecodedAndKeepTheirCase) {
  expect_loaded(PolicyDocument().set("allowed_tables", "[\"\\u0041b\", \"9\", \"_\", \"AB_\"]"));
  ASSERT_EQ(policy->allowed_tables.count, 4U);
  EXPECT_STREQ(policy->allowed_tables.names[0], "Ab");
  EXPECT_STREQ(policy->allowed_tables.names[1], "9");
  EXPECT_STREQ(policy->allowed_tables.names[2], "_");
  EXPECT_STREQ(policy->allowed_tables.names[3], "AB_");
}

// The lists are independent of each other: a table may be readable and writable.
TEST_F(PolicyLoading, TwoListsMayHoldTheSameName) {
  expect_loaded(PolicyDocument()
                    .set("allowed_tables", "[\"LOG\"]")
                    .set("denied_columns", "[\"LOG\"]")
                    .set("write_tables", "[\"LOG\"]"));
}

TEST_F(PolicyLoading, WriteTypesAreThree) {
  struct Row {
    const char* types;
    std::uint32_t mask;
  };
  for (const Row& row :
       {Row{"[]", 0}, Row{"[\"INSERT\"]", 1}, Row{"[\"UPDATE\"]", 2}, Row{"[\"DELETE\"]", 4},
        Row{"[\"insert\"]", 1}, Row{"[\"Update\"]", 2}, Row{"[\"deletE\"]", 4},
        Row{"[\"DELETE\",\"insert\"]", 5}, Row{"[\"UPDATE\",\"DELETE\",\"INSERT\"]", 7}}) {
    SCOPED_TRACE(row.types);
    expect_loaded(PolicyDocument().set("write_types", row.types));
    EXPECT_EQ(policy->write_type_mask, row.mask);
  }
  for (const std::string& types :
       {std::string("[\"MERGE\"]"), std::string("[\"INSERT\",\"SELECT\"]"),
        std::string("[\"INSERTS\"]"), std::string("[\"INSER\"]"), std::string("[\"_\"]"),
        list_of(64)}) {
    SCOPED_TRACE(types);
    expect_refused(PolicyDocument().set("write_types", types), kWriteTypeMessage);
  }
  expect_refused(PolicyDocument().set("write_types", "[\"MERGE\",\"a b\"]"), kWriteListMessage);
}

TEST_F(PolicyLoading, TheApprovalLifetimeIsBetween30And900Seconds) {
  for (const char* value :
       {"29", "901", "0", "\"300\"", "300.0", "3e2", "-300", "null", "true", "[300]", "{}",
        "4294967296", "4294967326", "18446744073709551646", "99999999999999999999999999999999"}) {
    SCOPED_TRACE(value);
    expect_refused(PolicyDocument().set("approval_ttl_seconds", value), kTtlMessage);
  }
  expect_loaded(PolicyDocument().set("approval_ttl_seconds", "30"));
  EXPECT_EQ(policy->approval_ttl_seconds, 30U);
  expect_loaded(PolicyDocument().set("approval_ttl_seconds", "900"));
  EXPECT_EQ(policy->approval_ttl_seconds, 900U);
}

TEST_F(PolicyLoading, TheApprovalDirectoryIsATextOfUpTo511Characters) {
  for (const char* value : {"null", "5", "true", "[]", "{}", "\"\\udc00\""}) {
    SCOPED_TRACE(value);
    expect_refused(PolicyDocument().set("approval_state_directory", value),
                   kDirectoryRequiredMessage);
  }
  expect_loaded(PolicyDocument().set("approval_state_directory", literal_of(511)));
  EXPECT_EQ(policy->approval_state_directory, std::string(511, 'n'));
  expect_refused(PolicyDocument().set("approval_state_directory", literal_of(512)),
                 kDirectoryRequiredMessage);
  // 511 characters after unescaping.
  std::string escapes;
  for (int i = 0; i < 511; ++i) escapes += "\\u006e";
  expect_loaded(PolicyDocument().set("approval_state_directory", "\"" + escapes + "\""));
  EXPECT_EQ(policy->approval_state_directory, std::string(511, 'n'));
  expect_refused(PolicyDocument().set("approval_state_directory", "\"" + escapes + "n\""),
                 kDirectoryRequiredMessage);
}

TEST_F(PolicyLoading, TheApprovalDirectoryIsLookedAtForApprovedWritesOnly) {
  for (const char* writes : {"false", "true"}) {
    for (const char* approval : {"false", "true"}) {
      if (writes == approval && writes == std::string("true")) continue;
      for (const char* directory : {"\"\"", "\"not/a/folder\"", "\"..\""}) {
        SCOPED_TRACE(std::string(writes) + approval + directory);
        expect_loaded(PolicyDocument()
                          .set("writes_enabled", writes)
                          .set("approval_required", approval)
                          .set("approval_state_directory", directory));
      }
    }
  }
}

TEST_F(PolicyLoading, TheApprovalDirectoryIsAnAbsoluteCanonicalPath) {
  const std::string path = folder.path();
  const char separator = folder.file("x")[path.size()];
  const std::string dot = path + separator + ".";
  for (const std::string& directory :
       {std::string(), std::string("state"), std::string("./state"), std::string("."),
        std::string(".."), dot, dot + ".", path + separator + separator + "state",
        dot + separator + "state"}) {
    SCOPED_TRACE(directory);
    expect_refused(PolicyDocument().with_approved_writes(directory), kDirectoryPathMessage);
  }
}

TEST_F(PolicyLoading, TheApprovalDirectoryExists) {
  expect_loaded(PolicyDocument().with_approved_writes(folder.path()));
  expect_refused(PolicyDocument().with_approved_writes(folder.file("missing")),
                 kDirectoryMissingMessage);
  write_file(folder.file("file"), "x");
  expect_refused(PolicyDocument().with_approved_writes(folder.file("file")),
                 kDirectoryMissingMessage);
}

// A decoded text ends at an escaped NUL.
TEST_F(PolicyLoading, ATextEndsAtAnEscapedNul) {
  expect_loaded(PolicyDocument()
                    .set("name", "\"Demo\\u0000-rest\"")
                    .set("allowed_tables", "[\"ORDERS\\u0000;\"]"));
  EXPECT_STREQ(policy->name, "Demo");
  EXPECT_STREQ(policy->allowed_tables.names[0], "ORDERS");
}

}  // namespace
}  // namespace kova::testing
