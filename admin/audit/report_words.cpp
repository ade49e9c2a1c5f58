#include <fmt/format.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/audit/report_formats.h"
#include "admin/common/printable.h"
#include "base/string_scan.h"

namespace kova::admin {

namespace {

constexpr std::size_t kShownLimit = 200;

void add_sentence(std::vector<std::string>& sentences, const char* start,
                  const std::optional<std::string>& value) {
  if (value) sentences.push_back(fmt::format("{} {}", start, shown(*value)));
}

}  // namespace

const std::vector<std::string_view>& what_is_missing() {
  static const std::vector<std::string_view> sentences = {
      "The statements, their tables, parameters and results: the record names a call, not its SQL.",
      ("Calls that ended in a protocol error: unknown tools, malformed messages, calls refused as "
       "busy."),
      ("Calls that were cancelled, and calls whose worker crashed or was killed, unless they had "
       "already replied. Their statement may have reached the engine."),
      ("Everything that is no tool call: sessions that began, lists of tools, approvals that were "
       "issued."),
      ("Records that the file did not take: it could not be opened, the disk was full, another "
       "program held it. A gap below may be such a time, or a quiet one."),
      "Proof. Whoever may write the file can change it; seals that are kept elsewhere show that.",
  };
  return sentences;
}

std::vector<std::string> filter_sentences(const FilterOptions& filter) {
  std::vector<std::string> sentences;
  add_sentence(sentences, "Records from", filter.since);
  add_sentence(sentences, "Records before", filter.until);
  add_sentence(sentences, "Records of the client", filter.client);
  add_sentence(sentences, "Records of the tool", filter.tool);
  return sentences;
}

std::string shown(std::string_view text) {
  if (text.size() <= kShownLimit) return printable(text);
  return fmt::format("{}... ({} bytes)", printable(cut_text(text, kShownLimit)), text.size());
}

std::string grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t end = digits.size(); end > 3;) {
    end -= 3;
    digits.insert(end, 1, ',');
  }
  return digits;
}

std::string_view reason_meaning(Reason reason) {
  constexpr std::string_view kTexts[kReasons] = {
      "refused by the policy, or an approval token that was not accepted",
      "a provider is switched off", "a write came without an approval; nothing ran",
      "kova_query: refused by the checks of the statement, or bad arguments",
      "refused by the engine or a limit, or bad arguments"};
  return kTexts[static_cast<std::size_t>(reason)];
}

}  // namespace kova::admin
