// The sixteen keys of a policy file: each there, each once, nothing else.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "unit/policy/policy_document.h"

namespace kova::testing {
namespace {

// What is said when a key is not found, in the order of the keys in PolicyDocument.
struct KeyRow {
  const char* key;
  std::string_view missing;
};

constexpr KeyRow kKeys[] = {
    {"version", kIdentityMessage},
    {"name", kIdentityMessage},
    {"client_id", kIdentityMessage},
    {"database", kIdentityMessage},
    {"database_user", kIdentityMessage},
    {"reads_enabled", kListMessage},
    {"provider_reads_enabled", kListMessage},
    {"writes_enabled", kListMessage},
    {"approval_required", kListMessage},
    {"allowed_tables", kListMessage},
    {"denied_columns", kListMessage},
    {"allowed_collections", kListMessage},
    {"write_tables", kListMessage},
    {"write_types", kWriteListMessage},
    {"approval_ttl_seconds", kTtlMessage},
    {"approval_state_directory", kDirectoryRequiredMessage},
};

class PolicyKeys : public PolicyLoading, public ::testing::WithParamInterface<KeyRow> {};

TEST_P(PolicyKeys, AreAllRequired) {
  expect_refused(PolicyDocument().remove(GetParam().key), GetParam().missing);
}

// The scan compares decoded keys, the look-up raw ones.
TEST_P(PolicyKeys, AreNotFoundInAnEscapedSpelling) {
  const std::string key = GetParam().key;
  char escaped[8];
  ASSERT_TRUE(TextOut(escaped).format("\\u%04x", static_cast<unsigned>(key[0])));
  expect_refused(PolicyDocument().rename(key, escaped + key.substr(1)), GetParam().missing);
}

TEST_P(PolicyKeys, AreNotFoundWithAnEscapedNulAfterThem) {
  const std::string key = GetParam().key;
  expect_refused(PolicyDocument().rename(key, key + "\\u0000x"), GetParam().missing);
}

TEST_P(PolicyKeys, MayNotStandTwice) {
  const std::string key = GetParam().key;
  PolicyDocument twice;
  expect_refused(twice.add(key, "0"), kSchemaMessage);
  char escaped[8];
  ASSERT_TRUE(TextOut(escaped).format("\\u%04X", static_cast<unsigned>(key[1])));
  PolicyDocument escaped_twice;
  expect_refused(escaped_twice.add(key[0] + std::string(escaped) + key.substr(2), "0"),
                 kSchemaMessage);
}

TEST_P(PolicyKeys, AreCaseSensitive) {
  std::string key = GetParam().key;
  key[0] = static_cast<char>(key[0] - 'a' + 'A');
  expect_refused(PolicyDocument().rename(GetParam().key, key), kSchemaMessage);
}

TEST_P(PolicyKeys, AreNotMisspelled) {
  const std::string key = GetParam().key;
  expect_refused(PolicyDocument().rename(key, key.substr(0, key.size() - 1)), kSchemaMessage);
  expect_refused(PolicyDocument().rename(key, key + "_"), kSchemaMessage);
  expect_refused(PolicyDocument().rename(key, " " + key), kSchemaMessage);
}

INSTANTIATE_TEST_SUITE_P(Every, PolicyKeys, ::testing::ValuesIn(kKeys),
                         [](const auto& row) { return std::string(row.param.key); });

TEST_F(PolicyLoading, NoSeventeenthKey) {
  for (const char* key : {"comment", "", "_meta", "allowed_views", "\\u0000", "\\u0000name"}) {
    SCOPED_TRACE(key);
    expect_refused(PolicyDocument().add(key, "1"), kSchemaMessage);
    expect_refused(PolicyDocument().add(key, "1").reverse(), kSchemaMessage);
  }
}

TEST_F(PolicyLoading, AKeyThatDoesNotDecodeOrFitIsRefused) {
  for (const std::string& key :
       {std::string("\\ud800"), std::string("\\udc00x"), std::string(63, 'k'), std::string(64, 'k'),
        std::string(70000 / 2, 'k')}) {
    expect_refused(PolicyDocument().add(key, "1"), kSchemaMessage);
  }
}

TEST_F(PolicyLoading, TheKeysOfNestedObjectsAreNotScanned) {
  const char* nested = "{\"other\": 1, \"other\": {\"name\": [{\"version\": 1}]}}";
  for (const KeyRow& row : kKeys) {
    SCOPED_TRACE(row.key);
    expect_refused(PolicyDocument().set(row.key, nested), row.missing);
  }
}

TEST_F(PolicyLoading, AnEmptyObjectLacksItsIdentity) {
  expect_refused_text("{}", kIdentityMessage);
  expect_refused_text(" { } ", kIdentityMessage);
}

TEST_F(PolicyLoading, ManyUnknownKeysAreRefused) {
  PolicyDocument document;
  for (int i = 0; i < 40; ++i) document.add("k" + std::to_string(i), "1");
  expect_refused(document, kSchemaMessage);
}

}  // namespace
}  // namespace kova::testing
