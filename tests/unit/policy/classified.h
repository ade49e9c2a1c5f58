// Classifying one statement: what the classifier accepted, or its message.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "policy/predicates.h"
#include "policy/write_classifier.h"
#include "support/environment.h"
#include "support/guard_page.h"
#include "unit/policy/policy_document.h"

namespace kova::testing {

inline constexpr char kNoMessage[] = "untouched";

inline constexpr std::string_view kWritesOff = "MCP writes are disabled by policy or kill switch";
inline constexpr std::string_view kWriteSize = "write SQL size is invalid";
inline constexpr std::string_view kComment = "comments are not allowed in writes";
inline constexpr std::string_view kSecondStatement = "only one write statement is allowed";
inline constexpr std::string_view kFull = "normalized write is too large";
inline constexpr std::string_view kOpenLiteral = "unterminated write literal";
inline constexpr std::string_view kNoWordsFound = "write syntax cannot be classified";
inline constexpr std::string_view kNoWrite =
    "only INSERT, UPDATE, and DELETE are classifiable writes";
inline constexpr std::string_view kDeniedWrite =
    "write type or target table is not allowed by MCP policy";
inline constexpr std::string_view kProhibited = "write contains a prohibited operation";

class WriteClassifier : public ::testing::Test {
 protected:
  WriteClassifier() {
    policy->writes_enabled = true;
    policy->write_type_mask = kInsert | kUpdate | kDelete;
    fill(policy->write_tables, {"T", "ORDERS", "log"});
  }

  bool classify(std::string_view sql, GuardSide side = GuardSide::kAfter) {
    TextOut(message).copy_cut(kNoMessage);
    const GuardedText text(sql, side);
    return write_classify(*policy, text.view(), *write, message);
  }
  void expect_refused(std::string_view sql, std::string_view expected) {
    EXPECT_FALSE(classify(sql)) << sql.substr(0, 200);
    EXPECT_EQ(std::string_view(message), expected) << sql.substr(0, 200);
  }
  /// Accepted, and brought to this text.
  void expect_canonical(std::string_view sql, std::string_view canonical) {
    EXPECT_TRUE(classify(sql)) << sql.substr(0, 200) << " " << message;
    EXPECT_STREQ(message, kNoMessage);
    EXPECT_EQ(std::string_view(write->canonical), canonical);
  }
  void expect_write(std::string_view sql, std::string_view type, std::string_view table) {
    EXPECT_TRUE(classify(sql)) << sql.substr(0, 200) << " " << message;
    EXPECT_EQ(std::string_view(write->type), type) << sql;
    EXPECT_EQ(std::string_view(write->table), table) << sql;
  }

  ScopedEnvironment writes_switch{kDisableWrites};
  std::unique_ptr<McpPolicy> policy = loaded_policy();
  std::unique_ptr<ClassifiedWrite> write = std::make_unique<ClassifiedWrite>();
  char message[256] = {};
};

}  // namespace kova::testing
