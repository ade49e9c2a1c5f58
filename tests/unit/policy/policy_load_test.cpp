// Finding, reading and parsing the policy file, and the order of all checks.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "policy/policy.h"
#include "support/allocation_failure.h"
#include "unit/policy/policy_document.h"

namespace kova::testing {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// White space of the JSON grammar, so that the file has this size and no other content.
std::string padded(const std::string& text, std::size_t size) {
  return text + std::string(size - text.size(), '\n');
}

TEST_F(PolicyLoading, NoPathMeansNoPolicyAndItsDefaults) {
  for (const bool empty : {false, true}) {
    std::memset(static_cast<void*>(policy.get()), 0x5A, sizeof *policy);
    empty ? path_variable.set("") : path_variable.unset();
    EXPECT_TRUE(load());
    EXPECT_FALSE(policy->configured);
    EXPECT_TRUE(policy->valid);
    EXPECT_TRUE(policy->reads_enabled);
    EXPECT_TRUE(policy->provider_reads_enabled);
    EXPECT_FALSE(policy->writes_enabled);
    EXPECT_FALSE(policy->approval_required);
    EXPECT_EQ(policy->approval_ttl_seconds, 300U);
    EXPECT_EQ(policy->write_type_mask, 0U);
    EXPECT_STREQ(policy->name, "");
    EXPECT_STREQ(policy->client_id, "");
    EXPECT_STREQ(policy->database, "");
    EXPECT_STREQ(policy->database_user, "");
    EXPECT_STREQ(policy->approval_state_directory, "");
    EXPECT_EQ(policy->allowed_tables.count, 0U);
    EXPECT_EQ(policy->denied_columns.count, 0U);
    EXPECT_EQ(policy->allowed_collections.count, 0U);
    EXPECT_EQ(policy->write_tables.count, 0U);
    EXPECT_STREQ(policy->error, "");
  }
}

TEST_F(PolicyLoading, NoPathNeedsNoLaunchIdentity) {
  client_variable.unset();
  database_variable.unset();
  user_variable.unset();
  EXPECT_TRUE(load());
}

TEST_F(PolicyLoading, AFileFillsEveryField) {
  std::memset(static_cast<void*>(policy.get()), 0x5A, sizeof *policy);
  PolicyDocument document;
  document.with_approved_writes(folder.path()).set("provider_reads_enabled", "false");
  document.set("write_types", "[\"DELETE\", \"INSERT\"]").set("approval_ttl_seconds", "45");
  expect_loaded(document);
  EXPECT_TRUE(policy->reads_enabled);
  EXPECT_FALSE(policy->provider_reads_enabled);
  EXPECT_TRUE(policy->writes_enabled);
  EXPECT_TRUE(policy->approval_required);
  EXPECT_EQ(policy->approval_ttl_seconds, 45U);
  EXPECT_EQ(policy->write_type_mask, 5U);
  EXPECT_STREQ(policy->name, "Demo_1");
  EXPECT_STREQ(policy->client_id, "desk-7.client_A");
  EXPECT_STREQ(policy->database, "SHOP");
  EXPECT_STREQ(policy->database_user, "reader-1.x");
  EXPECT_EQ(policy->approval_state_directory, folder.path());
  ASSERT_EQ(policy->allowed_tables.count, 2U);
  EXPECT_STREQ(policy->allowed_tables.names[0], "ORDERS");
  EXPECT_STREQ(policy->allowed_tables.names[1], "items");
  ASSERT_EQ(policy->denied_columns.count, 1U);
  EXPECT_STREQ(policy->denied_columns.names[0], "SSN");
  ASSERT_EQ(policy->allowed_collections.count, 1U);
  EXPECT_STREQ(policy->allowed_collections.names[0], "DOCS");
  ASSERT_EQ(policy->write_tables.count, 1U);
  EXPECT_STREQ(policy->write_tables.names[0], "LOG");
}

TEST_F(PolicyLoading, TheFlagsOfAFileReplaceTheDefaults) {
  PolicyDocument document;
  document.set("reads_enabled", "false").set("provider_reads_enabled", "false");
  expect_loaded(document);
  EXPECT_FALSE(policy->reads_enabled);
  EXPECT_FALSE(policy->provider_reads_enabled);
}

TEST_F(PolicyLoading, TheKeysMayStandInAnyOrder) {
  PolicyDocument document;
  expect_loaded(document.reverse());
  EXPECT_STREQ(policy->name, "Demo_1");
}

TEST_F(PolicyLoading, ALaterLoadForgetsTheEarlierOne) {
  expect_loaded(PolicyDocument());
  expect_refused_text("[]", kSchemaMessage);
  EXPECT_STREQ(policy->name, "");
  EXPECT_EQ(policy->allowed_tables.count, 0U);
  expect_loaded(PolicyDocument());
}

// The audit record names the policy as far as it was read.
TEST_F(PolicyLoading, AFailureKeepsANameThatWasRead) {
  expect_refused(PolicyDocument().set("write_types", "0"), kWriteListMessage);
  EXPECT_STREQ(policy->name, "Demo_1");
}

TEST_F(PolicyLoading, APathThatIsNotAbsoluteIsRefused) {
  for (const char* path : {"policy.json", "./policy.json", "../policy.json", "x", "."}) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(load_file(path));
    expect_refusal(kPathMessage);
  }
}

TEST_F(PolicyLoading, APathThatIsNotCanonicalIsRefused) {
  const std::string path = folder.file("policy.json");
  write_file(path, PolicyDocument().text());
  ASSERT_TRUE(load_file(path));
  const char separator = path[folder.path().size()];
  const auto joined = [&](std::initializer_list<std::string_view> parts) {
    std::string text = folder.path();
    for (const std::string_view part : parts) (text += separator) += part;
    return text;
  };
  const std::string folder_name = folder.path().substr(folder.path().rfind(separator) + 1);
  for (const std::string& other :
       {joined({".", "policy.json"}), joined({"", "policy.json"}),
        joined({"..", folder_name, "policy.json"}), joined({"x", "..", "policy.json"}),
        path + separator + ".", path + separator + ".."}) {
    SCOPED_TRACE(other);
    EXPECT_FALSE(load_file(other));
    expect_refusal(kPathMessage);
  }
}

TEST_F(PolicyLoading, APathMayHave259Characters) {
  const std::size_t name_length = 259 - folder.path().size() - 1;
  ASSERT_LE(name_length, 254U);
  const std::string path = folder.file(std::string(name_length, 'p'));
  ASSERT_EQ(path.size(), 259U);
  write_file(path, PolicyDocument().text());
  EXPECT_TRUE(load_file(path));
  EXPECT_FALSE(load_file(path + "p"));
  expect_refusal(kPathMessage);
  EXPECT_FALSE(load_file(path + std::string(2000, 'p')));
  expect_refusal(kPathMessage);
}

TEST_F(PolicyLoading, APathMayHoldBytesBeyondAscii) {
  const std::string path = folder.file("r\xC3\xA8gle-\xE6\x96\xB9\xE9\x87\x9D.json");
  write_file(path, PolicyDocument().text());
  EXPECT_TRUE(load_file(path));
}

TEST_F(PolicyLoading, AFileThatIsNotThereCannotBeOpened) {
  EXPECT_FALSE(load_file(folder.file("missing.json")));
  expect_refusal(kOpenMessage);
}

TEST_F(PolicyLoading, ADirectoryCannotBeOpened) {
  EXPECT_FALSE(load_file(folder.path()));
  expect_refusal(kOpenMessage);
}

TEST_F(PolicyLoading, TheSizeIsBetween1And65536Bytes) {
  const std::string text = PolicyDocument().text();
  expect_refused_text("", kSizeMessage);
  expect_refused_text("{", kSchemaMessage);
  expect_loaded_text(padded(text, 65536));
  expect_refused_text(padded(text, 65537), kSizeMessage);
  expect_refused_text(padded(text, 1 << 20), kSizeMessage);
  expect_refused_text(std::string(65536, '['), kSchemaMessage);
}

TEST_F(PolicyLoading, AByteOrderMarkIsRemovedOnce) {
  const std::string text = PolicyDocument().text();
  const std::string mark(kByteOrderMark);
  expect_loaded_text(mark + text);
  expect_loaded_text(padded(mark + text, 65536));
  expect_refused_text(padded(mark + text, 65537), kSizeMessage);
  expect_refused_text(mark, kSchemaMessage);
  expect_refused_text(mark + mark + text, kSchemaMessage);
  expect_refused_text(" " + mark + text, kSchemaMessage);
  expect_refused_text(text + mark, kSchemaMessage);
  expect_refused_text("\xEF\xBB", kSchemaMessage);
  expect_refused_text("\xEF\xBB" + text, kSchemaMessage);
}

TEST_F(PolicyLoading, TheFileIsOneObjectInStrictJson) {
  const std::string text = PolicyDocument().text();
  const std::string utf16("{\0\"\0", 4);
  for (const std::string& bad :
       {std::string("[]"), std::string("null"), std::string("1"), std::string("\"x\""),
        std::string("true"), std::string(" "), std::string("x"), "[" + text + "]", text + text,
        text + ",", text + "x", text + '\0', text.substr(0, text.size() - 1), "// note\n" + text,
        utf16, text + "\xFF", std::string("{\"name\":\"\xC0\x80\"}")}) {
    SCOPED_TRACE(bad);
    expect_refused_text(bad, kSchemaMessage);
  }
  expect_loaded_text("\r\n\t " + text + "\r\n\t ");
}

// One whole text in every truncation: no cut is taken for a policy.
TEST_F(PolicyLoading, NoTruncatedFileIsAPolicy) {
  PolicyDocument document;
  document.set("name", "\"D\\u0065mo\"");
  const std::string text = document.text();
  for (std::size_t size = 1; size < text.size(); ++size) {
    ASSERT_FALSE(load_text(text.substr(0, size))) << size;
    ASSERT_EQ(policy->error, kSchemaMessage) << size;
  }
  expect_loaded_text(text);
}

TEST_F(PolicyLoading, TheTextHasAtMost1024Tokens) {
  PolicyDocument document;
  for (const char* list :
       {"allowed_tables", "denied_columns", "allowed_collections", "write_tables", "write_types"})
    document.set(list, "[]");
  // The object, its keys and its values are 33 tokens.
  const auto with_elements = [&](int count) {
    std::string array = "[";
    for (int i = 0; i < count; ++i) array += i == 0 ? "0" : ",0";
    return PolicyDocument(document).set("version", array + "]");
  };
  expect_refused(with_elements(1024 - 33), kIdentityMessage);
  expect_refused(with_elements(1025 - 33), kSchemaMessage);
}

TEST_F(PolicyLoading, WithoutMemoryForTheTextItIsRefused) {
  write_file(folder.file("policy.json"), PolicyDocument().text());
  path_variable.set(folder.file("policy.json"));
  int refused_for_memory = 0;
  for (int nth = 1; nth <= 40; ++nth) {
    bool happened = false;
    bool loaded = false;
    {
      const AllocationFailure failure(nth);
      loaded = load();
      happened = AllocationFailure::happened();
    }
    // Whatever was missing, no policy comes out of it, least of all the one without a file.
    EXPECT_EQ(loaded, !happened) << nth;
    EXPECT_EQ(policy->valid, !happened) << nth;
    if (policy->error == kMemoryMessage) ++refused_for_memory;
  }
  // The file's bytes and its tokens.
  EXPECT_EQ(refused_for_memory, 2);
}

// Each change breaks one more, earlier check; the earliest one speaks.
TEST_F(PolicyLoading, TheFirstFailingCheckSpeaks) {
  PolicyDocument document;
  document.with_approved_writes(folder.file("missing"));
  expect_refused(document, kDirectoryMissingMessage);
  document.set("approval_state_directory", "\"missing\"");
  expect_refused(document, kDirectoryPathMessage);
  document.set("approval_state_directory", "0");
  expect_refused(document, kDirectoryRequiredMessage);
  document.set("approval_ttl_seconds", "29");
  expect_refused(document, kTtlMessage);
  document.set("write_types", "[\"MERGE\"]");
  expect_refused(document, kWriteTypeMessage);
  document.set("write_types", "[\"MERGE\", \"\"]");
  expect_refused(document, kWriteListMessage);
  document.set("write_tables", "[\"a b\"]");
  expect_refused(document, kListMessage);
  client_variable.set("somebody");
  expect_refused(document, kLaunchMessage);
  document.set("version", "2");
  expect_refused(document, kIdentityMessage);
  document.add("comment", "0");
  expect_refused(document, kSchemaMessage);
  expect_refused_text(padded(document.text(), 65537), kSizeMessage);
  EXPECT_FALSE(load_file(folder.file("missing.json")));
  expect_refusal(kOpenMessage);
  EXPECT_FALSE(load_file("missing.json"));
  expect_refusal(kPathMessage);
}

}  // namespace
}  // namespace kova::testing
