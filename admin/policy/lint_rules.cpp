#include "admin/policy/lint_rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "base/ascii.h"
#include "platform/file_rights.h"
#include "platform/shared_input.h"
#include "policy/predicates.h"

namespace kova::admin {

namespace {

constexpr std::uint32_t kLongTtlSeconds = 300;

/// Parts of names that speak of persons: of columns, and of tables.
constexpr std::string_view kPersonalColumns[] = {
    "EMAIL",     "E_MAIL",   "PHONE",   "MOBILE",     "BIRTH",     "SSN",
    "PASSPORT",  "SALARY",   "IBAN",    "CARD",       "ADDRESS",   "STREET",
    "PASSWORD",  "SECRET",   "TAX_ID",  "FIRST_NAME", "LAST_NAME", "FULL_NAME",
    "FIRSTNAME", "LASTNAME", "SURNAME", "GENDER",     "RELIGION",  "DIAGNOS"};
constexpr std::string_view kPersonalTables[] = {
    "CUSTOMER", "USER",  "PERSON",  "PEOPLE",  "EMPLOYEE", "PATIENT",  "MEMBER",
    "CONTACT",  "STAFF", "STUDENT", "CITIZEN", "PAYROLL",  "APPLICANT"};

template <std::size_t N>
bool has_part(const std::string& name, const std::string_view (&parts)[N]) {
  std::string upper = name;
  std::ranges::transform(upper, upper.begin(), to_upper);
  return std::ranges::any_of(
      parts, [&](std::string_view part) { return upper.find(part) != std::string::npos; });
}

/// The findings of one policy, one function a rule.
class PolicyLint {
 public:
  explicit PolicyLint(const LintSubject& subject) : subject_(subject), policy_(*subject.policy) {}

  [[nodiscard]] std::vector<LintFinding> run() {
    writes_without_approval();
    long_ttl();
    open_state_directory();
    unreadable_write_tables();
    no_denied_columns();
    unknown_denied_columns();
    writable_file();
    return std::move(findings_);
  }

 private:
  void add(const char* rule, const char* key, std::string why, std::string instead) {
    findings_.push_back({.file = subject_.file,
                         .rule = rule,
                         .key = key,
                         .why = std::move(why),
                         .instead = std::move(instead)});
  }

  void writes_without_approval() {
    if (!policy_.writes_enabled || policy_.approval_required) return;
    add("writes-without-approval", "approval_required",
        "every write that the lists allow runs at once, without an operator",
        "set approval_required to true, unless the client may change these tables alone");
  }

  void long_ttl() {
    if (policy_.approval_ttl_seconds <= kLongTtlSeconds) return;
    add("long-ttl", "approval_ttl_seconds",
        fmt::format("a token stays valid for {} seconds, long after the operator has looked",
                    policy_.approval_ttl_seconds),
        fmt::format("set approval_ttl_seconds to {} or less", kLongTtlSeconds));
  }

  void open_state_directory() {
    if (subject_.other_host) return;
    FileRights rights;
    const char* const directory = policy_.approval_state_directory;
    if (directory[0] == '\0' || !read_file_rights(directory, rights) || !rights.others_write) {
      return;
    }
    add("open-state-directory", "approval_state_directory",
        fmt::format("every account may write to {}: who removes a marker lets a used token be "
                    "used again",
                    directory),
        "let the server's account alone write to it (mode 0700)");
  }

  void unreadable_write_tables() {
    for (std::uint32_t i = 0; i < policy_.write_tables.count; ++i) {
      const char* const table = policy_.write_tables.names[i];
      if (policy_table_allowed(policy_, table, TableUse::kRead)) continue;
      add("write-table-not-readable", "write_tables",
          fmt::format("{} may be written and not read: the client writes blindly, and a write can "
                      "still copy what it holds",
                      table),
          fmt::format("add {0} to allowed_tables, or take {0} out of write_tables", table));
    }
  }

  /// What sounds personal in an allowed table, or nothing.
  [[nodiscard]] std::string personal_part(const std::string& table) const {
    if (!subject_.columns) {
      const bool is_personal =
          has_part(table, kPersonalTables) || has_part(table, kPersonalColumns);
      return is_personal ? table : std::string();
    }
    for (const TableColumns& known : *subject_.columns) {
      if (!equal_ignoring_case(known.table, table)) continue;
      for (const std::string& column : known.columns) {
        if (has_part(column, kPersonalColumns)) return fmt::format("{}.{}", table, column);
      }
    }
    return {};
  }

  void no_denied_columns() {
    if (!policy_.reads_enabled || policy_.denied_columns.count > 0) return;
    for (std::uint32_t i = 0; i < policy_.allowed_tables.count; ++i) {
      const std::string part = personal_part(policy_.allowed_tables.names[i]);
      if (part.empty()) continue;
      add("no-denied-columns", "denied_columns",
          fmt::format("no column is denied, and {} sounds personal", part),
          "name the personal columns in denied_columns, or allow a view without them");
      return;
    }
  }

  [[nodiscard]] bool column_exists(std::string_view column) const {
    return std::ranges::any_of(*subject_.columns, [&](const TableColumns& known) {
      return std::ranges::any_of(known.columns, [&](const std::string& each) {
        return equal_ignoring_case(each, column);
      });
    });
  }

  void unknown_denied_columns() {
    if (!subject_.columns) return;
    for (std::uint32_t i = 0; i < policy_.denied_columns.count; ++i) {
      const char* const column = policy_.denied_columns.names[i];
      if (column_exists(column)) continue;
      add("unknown-denied-column", "denied_columns",
          fmt::format("{} is denied and exists in no table: a misspelled rule denies nothing",
                      column),
          "correct its spelling, or remove it");
    }
  }

  void writable_file() {
    FileRights rights;
    if (!read_file_rights(subject_.file.c_str(), rights) || !rights.others_write) return;
    add("policy-writable", "",
        "accounts other than its owner and group may write the file: the client may change its "
        "own rules",
        "let its owner alone write it (mode 0644 or less), in a folder that others cannot write");
  }

  const LintSubject& subject_;
  const McpPolicy& policy_;
  std::vector<LintFinding> findings_;
};

/// Whether two paths lead to one file.
bool is_same_file(const std::string& a, const std::string& b) {
  if (a == b) return true;
  SharedInput first;
  SharedInput second;
  FileIdentity first_identity;
  FileIdentity second_identity;
  return first.open(a.c_str()) && second.open(b.c_str()) && first.identity(first_identity) &&
         second.identity(second_identity) && first_identity == second_identity;
}

/// Why two policies of one name are a mistake. An approval is bound to name, client and database.
std::string shared_name_reason(const LintSubject& earlier, const McpPolicy& policy) {
  const bool same_binding = std::string_view(earlier.policy->client_id) == policy.client_id &&
                            std::string_view(earlier.policy->database) == policy.database;
  return fmt::format("{} has the name {} too: {}", earlier.file, policy.name,
                     same_binding ? "with one secret, a token for one host is accepted by the "
                                    "other as well"
                                  : "an audit record does not say which of them it speaks of");
}

}  // namespace

std::vector<LintFinding> lint_policy(const LintSubject& subject) {
  return PolicyLint(subject).run();
}

std::vector<LintFinding> lint_names(const std::vector<LintSubject>& subjects) {
  std::vector<LintFinding> findings;
  for (auto subject = subjects.begin(); subject != subjects.end(); ++subject) {
    const std::string_view name(subject->policy->name);
    const auto earlier = std::find_if(subjects.begin(), subject, [&](const LintSubject& other) {
      return name == other.policy->name && !is_same_file(other.file, subject->file);
    });
    if (earlier == subject) continue;
    findings.push_back(
        {.file = subject->file,
         .rule = "shared-name",
         .key = "name",
         .why = shared_name_reason(*earlier, *subject->policy),
         .instead = "give the policy of each host its own name, or each host its own secret"});
  }
  return findings;
}

}  // namespace kova::admin
