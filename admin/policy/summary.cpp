#include "admin/policy/summary.h"

#include <fmt/format.h>

#include <cstdint>
#include <string_view>
#include <utility>

#include "admin/common/printable.h"
#include "base/ascii.h"
#include "mcp/tool_list.h"
#include "policy/names.h"
#include "policy/predicates.h"
#include "tools/tool.h"
#include "tools/tool_table.h"

namespace kova::admin {

namespace {

using Sentences = std::vector<std::string>;

constexpr const char* kSecurityModel = "docs/security-model.md";
constexpr const char* kSurprises = "#what-the-checks-accept-although-a-reader-may-be-surprised";

std::string joined(const NameList& list) {
  std::string text;
  for (std::uint32_t i = 0; i < list.count; ++i) {
    if (i > 0) text += ", ";
    text += list.names[i];
  }
  return text;
}

std::string types_of(const McpPolicy& policy) {
  std::string text;
  const std::pair<WriteType, const char*> types[] = {
      {kInsert, "INSERT"}, {kUpdate, "UPDATE"}, {kDelete, "DELETE"}};
  for (const auto& [bit, name] : types) {
    if ((policy.write_type_mask & bit) == 0) continue;
    if (!text.empty()) text += ", ";
    text += name;
  }
  return text;
}

Sentences identity(const McpPolicy& policy) {
  return {fmt::format("The policy {} is for the client {} on the database {} as the user {}.",
                      policy.name, policy.client_id, policy.database, policy.database_user),
          "A server that is launched with another identity refuses every call."};
}

Sentences tools(const McpPolicy& policy) {
  std::string listed;
  std::string hidden;
  for (const Tool& tool : tool_table()) {
    std::string& list = is_listed(tool, policy) ? listed : hidden;
    if (!list.empty()) list += ", ";
    list += tool.name;
  }
  Sentences found;
  found.push_back(listed.empty() ? "The client sees no tool."
                                 : fmt::format("The client sees {}.", listed));
  if (!hidden.empty()) found.push_back(fmt::format("It does not see {}.", hidden));
  if (policy_env_flag(kDisableProviders)) {
    found.emplace_back("KOVA_MCP_DISABLE_PROVIDERS is set in this environment and counted here.");
  }
  if (policy_env_flag(kDisableWrites)) {
    found.emplace_back("KOVA_MCP_DISABLE_WRITES is set in this environment and counted here.");
  }
  return found;
}

void add_collections(const McpPolicy& policy, Sentences& found) {
  if (policy.allowed_collections.count == 0) {
    found.emplace_back("It can search no AI collection.");
    return;
  }
  found.push_back(fmt::format("It can search the AI collections {}, each as a whole.",
                              joined(policy.allowed_collections)));
  found.emplace_back(policy_provider_reads_allowed(policy)
                         ? "Text and hybrid searches send the client's text to the collection's "
                           "provider."
                         : "Text and hybrid searches are refused; vector searches are not.");
}

Sentences reading(const McpPolicy& policy) {
  if (!policy_reads_allowed(policy)) {
    return {"It can read nothing: reads_enabled is false, so every tool that reads is refused."};
  }
  Sentences found;
  if (policy.allowed_tables.count == 0) {
    found.emplace_back("It can read no table; a SELECT without FROM still runs.");
  } else {
    found.push_back(fmt::format("It can read the tables {}.", joined(policy.allowed_tables)));
    found.emplace_back(policy.denied_columns.count == 0
                           ? "It can see what their columns are called, and select * from them."
                           : "It cannot describe a table, and cannot select *.");
  }
  add_collections(policy, found);
  return found;
}

Sentences columns(const McpPolicy& policy) {
  if (policy.denied_columns.count == 0) return {"No column is hidden: denied_columns is empty."};
  return {fmt::format("The words {} may not stand in a SELECT outside literals, whatever the table "
                      "and whatever they mean there.",
                      joined(policy.denied_columns)),
          "A view or an alias that shows such a column under another name is not noticed, and the "
          "rule does not hold for writes."};
}

Sentences writing(const McpPolicy& policy) {
  if (!policy_writes_allowed(policy)) {
    return {"It can write nothing, with or without an operator."};
  }
  const std::string what = fmt::format("{} on {}", types_of(policy), joined(policy.write_tables));
  if (!policy.approval_required) {
    return {fmt::format("Without an operator it can run {}: writes run at once.", what),
            "No operator sees a write before it runs."};
  }
  return {
      "Without an operator it can write nothing.",
      fmt::format("With an operator's approval of the exact statement it can run {}.", what),
      fmt::format("An approval lives {} seconds at most and is used once; its markers lie in {}.",
                  policy.approval_ttl_seconds, policy.approval_state_directory)};
}

void add_read_limits(const McpPolicy& policy, Sentences& found) {
  if (policy.allowed_tables.count > 0) {
    found.emplace_back(
        "In FROM A, B and in S.T only the first name is looked up in "
        "allowed_tables.");
  }
  found.emplace_back(
      "Every function that the account may call can be called, also one that is "
      "slow or reads files.");
  found.emplace_back("A query may run as long as the engine lets it.");
}

void add_write_limits(const McpPolicy& policy, Sentences& found) {
  found.emplace_back("A write may read tables and columns that a SELECT may not.");
  found.emplace_back("Nothing asks a write for a WHERE or counts the rows that it changes.");
  if (policy.approval_required) {
    found.emplace_back("An approval does not show that the operator has read the statement.");
  }
}

Sentences not_stopped(const McpPolicy& policy) {
  Sentences found = {
      "The check of SQL is lexical: it looks at words and punctuation, and does not "
      "know the schema. The grants of the engine's account are the boundary."};
  if (policy_reads_allowed(policy)) add_read_limits(policy, found);
  if (policy_writes_allowed(policy)) add_write_limits(policy, found);
  return found;
}

/// A line without the marks of Markdown or HTML. Inside a word "_" is no mark of emphasis, at its
/// ends it is one.
std::string markdown_text(std::string_view line) {
  constexpr std::string_view kMarks = "\\`*[]<>~&";
  std::string text;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const bool inside =
        i > 0 && i + 1 < line.size() && is_alnum(line[i - 1]) && is_alnum(line[i + 1]);
    if (kMarks.find(line[i]) != kMarks.npos || (line[i] == '_' && !inside)) text += '\\';
    text += line[i];
  }
  return text;
}

std::string markdown(const McpPolicy& policy, const std::vector<SummarySection>& sections) {
  std::string text = fmt::format("# Policy `{}`\n", policy.name);
  for (const SummarySection& section : sections) {
    text += fmt::format("\n## {}\n\n", section.title);
    for (const std::string& sentence : section.sentences) {
      text += "- " + markdown_text(printable(sentence)) + '\n';
    }
  }
  return text + fmt::format("\nMore: [security model]({}{}).\n", kSecurityModel, kSurprises);
}

}  // namespace

std::vector<SummarySection> summary_of(const McpPolicy& policy) {
  return {{.title = "For whom", .sentences = identity(policy)},
          {.title = "Tools that the client sees", .sentences = tools(policy)},
          {.title = "What it can read", .sentences = reading(policy)},
          {.title = "Columns that never appear by name", .sentences = columns(policy)},
          {.title = "What it can write", .sentences = writing(policy)},
          {.title = "What the rules do not stop", .sentences = not_stopped(policy)}};
}

std::string summary_text(const McpPolicy& policy, SummaryForm form) {
  const std::vector<SummarySection> sections = summary_of(policy);
  if (form == SummaryForm::kMarkdown) return markdown(policy, sections);
  std::string text;
  for (const SummarySection& section : sections) {
    text += section.title + "\n";
    for (const std::string& sentence : section.sentences) text += "  " + printable(sentence) + '\n';
    text += '\n';
  }
  return text + fmt::format("More: {}{}\n", kSecurityModel, kSurprises);
}

}  // namespace kova::admin
