// The policy's check of a write, and the canonical text that is approved, digested and run.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/text.h"
#include "platform/crypto.h"
#include "policy/policy.h"
#include "policy/sql_words.h"

namespace kova {

/// Room for the canonical text; longer texts are refused.
inline constexpr std::size_t kCanonicalCapacity = kSqlLimit + 1;
inline constexpr std::size_t kWriteTypeCapacity = 16;
/// SHA-256 as lower-case hexadecimal text.
inline constexpr std::size_t kDigestTextCapacity = 2 * kSha256Size + 1;

/// One accepted write. Each text is NUL-terminated.
struct ClassifiedWrite {
  char canonical[kCanonicalCapacity];  ///< ends in exactly one ";"
  char type[kWriteTypeCapacity];       ///< "INSERT", "UPDATE" or "DELETE"
  char table[kSafeNameCapacity];       ///< upper-cased
  char digest[kDigestTextCapacity];    ///< SHA-256 of the canonical text
};

/// Writes the canonical form of a statement: outside single-quoted literals letters upper-cased
/// and runs of white space one blank, none at either end, one ";" at the end. False writes the
/// message of a comment, a second statement, an open literal or a text that is too large; a text
/// that fills `canonical` inside a literal leaves `message` untouched.
[[nodiscard]] bool write_canonical(std::string_view sql, TextOut canonical, TextOut message);

/// Accepts one INSERT, UPDATE or DELETE on a table that the policy lets be written. False writes
/// the message of the first check that failed, if that has one.
[[nodiscard]] bool write_classify(const McpPolicy& policy, std::string_view sql,
                                  ClassifiedWrite& write, TextOut message,
                                  CheckTrace* trace = nullptr);

}  // namespace kova
