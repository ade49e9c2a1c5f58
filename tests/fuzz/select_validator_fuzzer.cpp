// The policy's check of a SELECT: a refusal has one of the known messages, and what passes names no
// denied column, holds no second SELECT and reads no table that is not allowed right after FROM.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/require.h"
#include "fuzz/statement_words.h"
#include "policy/policy.h"
#include "policy/select_validator.h"

namespace {

using kova::fuzz::require;

constexpr std::string_view kMessages[] = {
    "comments are not allowed in policy SQL",
    "unbalanced SQL parentheses",
    "unterminated SQL literal or parentheses",
    "column is denied by MCP policy",
    "policy accepts SELECT only",
    "subqueries and UNION are not enabled by this policy version",
    "table is not allowed by MCP policy",
    "wildcard projection is denied when columns are restricted",
};

constexpr std::string_view kKeywords[] = {"SELECT", "UNION", "FROM",  "JOIN",
                                          "WHERE",  "GROUP", "ORDER", "HAVING"};

kova::McpPolicy make_policy() {
  kova::McpPolicy policy{};
  policy.configured = true;
  policy.valid = true;
  policy.reads_enabled = true;
  std::strcpy(policy.allowed_tables.names[0], "packages");
  std::strcpy(policy.allowed_tables.names[1], "T");
  policy.allowed_tables.count = 2;
  std::strcpy(policy.denied_columns.names[0], "Maintainer");
  std::strcpy(policy.denied_columns.names[1], "ssn");
  policy.denied_columns.count = 2;
  return policy;
}

void check_accepted(std::string_view sql) {
  const std::vector<std::string> words = kova::fuzz::words_of(sql);
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    require(word != "MAINTAINER" && word != "SSN", "no denied column passes");
    require((word == "SELECT") == (i == 0) && word != "UNION", "one SELECT, at the beginning");
    if (i == 0 || (words[i - 1] != "FROM" && words[i - 1] != "JOIN")) continue;
    const bool keyword =
        std::find(std::begin(kKeywords), std::end(kKeywords), word) != std::end(kKeywords);
    require(keyword || word == "PACKAGES" || word == "T", "a table after FROM or JOIN is allowed");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kova::McpPolicy restricted = make_policy();
  const std::string_view sql(reinterpret_cast<const char*>(data), size);
  char message[256] = "unwritten";
  if (kova::policy_validate_select(restricted, sql, message)) {
    check_accepted(sql);
  } else {
    require(std::find(std::begin(kMessages), std::end(kMessages), message) != std::end(kMessages),
            "a refusal has a message of the list");
  }
  kova::McpPolicy unconfigured{};
  unconfigured.valid = true;
  require(kova::policy_validate_select(unconfigured, sql, message),
          "without a policy file everything passes");
  return 0;
}
