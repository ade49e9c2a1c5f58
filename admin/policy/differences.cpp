#include "admin/policy/differences.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "policy/names.h"

namespace kova::admin {

namespace {

/// What a change of one key means.
struct Meaning {
  const char* key;
  const char* wider;     ///< "{}" stands for an entry
  const char* narrower;  ///< the same
};

struct FlagRow {
  Meaning meaning;
  bool McpPolicy::*flag;
  bool widens_with;
};

struct ListRow {
  Meaning meaning;
  NameList McpPolicy::*list;
  bool entries_widen;
};

constexpr FlagRow kFlags[] = {
    {.meaning = {.key = "reads_enabled",
                 .wider = "the tools that read are switched on",
                 .narrower = "the tools that read are switched off"},
     .flag = &McpPolicy::reads_enabled,
     .widens_with = true},
    {.meaning = {.key = "provider_reads_enabled",
                 .wider = "searches may send the client's text to a provider",
                 .narrower = "no search may send the client's text to a provider"},
     .flag = &McpPolicy::provider_reads_enabled,
     .widens_with = true},
    {.meaning = {.key = "writes_enabled",
                 .wider = "writes are switched on",
                 .narrower = "writes are switched off"},
     .flag = &McpPolicy::writes_enabled,
     .widens_with = true},
    {.meaning = {.key = "approval_required",
                 .wider = "writes run at once, without an operator",
                 .narrower = "each write needs an operator's approval"},
     .flag = &McpPolicy::approval_required,
     .widens_with = false},
};

constexpr ListRow kLists[] = {
    {.meaning = {.key = "allowed_tables",
                 .wider = "the table {} may be read",
                 .narrower = "the table {} may no longer be read"},
     .list = &McpPolicy::allowed_tables,
     .entries_widen = true},
    {.meaning = {.key = "denied_columns",
                 .wider = "the column {} may appear in a SELECT",
                 .narrower = "the column {} may no longer appear in a SELECT"},
     .list = &McpPolicy::denied_columns,
     .entries_widen = false},
    {.meaning = {.key = "allowed_collections",
                 .wider = "the collection {} may be searched",
                 .narrower = "the collection {} may no longer be searched"},
     .list = &McpPolicy::allowed_collections,
     .entries_widen = true},
    {.meaning = {.key = "write_tables",
                 .wider = "the table {} may be written",
                 .narrower = "the table {} may no longer be written"},
     .list = &McpPolicy::write_tables,
     .entries_widen = true},
};

constexpr std::pair<WriteType, const char*> kTypes[] = {
    {kInsert, "INSERT"}, {kUpdate, "UPDATE"}, {kDelete, "DELETE"}};

class Comparison {
 public:
  Comparison(const McpPolicy& before, const McpPolicy& after) : before_(before), after_(after) {}

  [[nodiscard]] PolicyDifferences run() {
    change("name", before_.name, after_.name);
    change("client_id", before_.client_id, after_.client_id);
    change("database", before_.database, after_.database);
    change("database_user", before_.database_user, after_.database_user);
    for (const FlagRow& row : kFlags) compare_flag(row);
    for (const ListRow& row : kLists) compare_list(row);
    compare_types();
    compare_lifetimes();
    change("approval_state_directory", before_.approval_state_directory,
           after_.approval_state_directory);
    return std::move(found_);
  }

 private:
  void change(const char* key, const char* before, const char* after) {
    if (std::strcmp(before, after) == 0) return;
    found_.changed.push_back({.key = key, .before = before, .after = after});
  }

  void shift(bool wider, const char* key, Json value, std::string sentence) {
    (wider ? found_.widened : found_.narrowed)
        .push_back({.key = key, .value = std::move(value), .sentence = std::move(sentence)});
  }

  void compare_flag(const FlagRow& row) {
    const bool after = after_.*row.flag;
    if (before_.*row.flag == after) return;
    const bool wider = after == row.widens_with;
    shift(wider, row.meaning.key, after, wider ? row.meaning.wider : row.meaning.narrower);
  }

  void compare_list(const ListRow& row) {
    add_missing(row, after_.*row.list, before_.*row.list, row.entries_widen);
    add_missing(row, before_.*row.list, after_.*row.list, !row.entries_widen);
  }

  /// Adds the entries of one list that the other does not hold.
  void add_missing(const ListRow& row, const NameList& from, const NameList& in, bool wider) {
    for (std::uint32_t i = 0; i < from.count; ++i) {
      if (policy_list_contains(in, from.names[i])) continue;
      const char* const meaning = wider ? row.meaning.wider : row.meaning.narrower;
      shift(wider, row.meaning.key, from.names[i],
            fmt::format(fmt::runtime(meaning), from.names[i]));
    }
  }

  void compare_types() {
    for (const auto& [bit, name] : kTypes) {
      const bool after = (after_.write_type_mask & bit) != 0;
      if (after == ((before_.write_type_mask & bit) != 0)) continue;
      shift(after, "write_types", name,
            fmt::format("{} statements may {}write", name, after ? "" : "no longer "));
    }
  }

  void compare_lifetimes() {
    const std::uint32_t before = before_.approval_ttl_seconds;
    const std::uint32_t after = after_.approval_ttl_seconds;
    if (before == after) return;
    shift(after > before, "approval_ttl_seconds", after,
          fmt::format("an approval lives {} seconds instead of {}", after, before));
  }

  const McpPolicy& before_;
  const McpPolicy& after_;
  PolicyDifferences found_;
};

}  // namespace

PolicyDifferences differences_of(const McpPolicy& before, const McpPolicy& after) {
  return Comparison(before, after).run();
}

}  // namespace kova::admin
