#include "admin/approve/journal.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "admin/common/command_line.h"
#include "admin/common/deployment.h"
#include "admin/common/file_text.h"
#include "admin/common/json_output.h"
#include "admin/common/paths.h"
#include "admin/common/refusal.h"
#include "admin/common/times.h"
#include "platform/durable_file.h"
#include "platform/file_probe.h"

namespace kova::admin {

namespace {

/// Years of decisions; more is a file that is no journal.
constexpr std::size_t kJournalLimit = 1U << 30U;

struct TextMember {
  const char* name;
  std::string Decision::*field;
};

struct OptionalMember {
  const char* name;
  std::optional<std::string> Decision::*field;
};

constexpr TextMember kTextMembers[] = {
    {"timestamp", &Decision::timestamp}, {"decision", &Decision::decision},
    {"operator", &Decision::person},     {"host", &Decision::host},
    {"reason", &Decision::reason},       {"policy", &Decision::policy},
    {"client_id", &Decision::client_id}, {"database", &Decision::database},
    {"type", &Decision::type},           {"table", &Decision::table},
    {"digest", &Decision::digest},
};
constexpr OptionalMember kOptionalMembers[] = {
    {"statement", &Decision::statement},
    {"nonce", &Decision::nonce},
    {"expires_at", &Decision::expires_at},
};

Json text_or_null(const std::optional<std::string>& text) {
  return text ? Json(*text) : Json(nullptr);
}

const Json& member(const Json& line, const char* name) {
  const auto found = line.find(name);
  if (found == line.end()) throw Refusal(fmt::format("the member {} is missing", name));
  return *found;
}

void check_decision(const Decision& decision) {
  const bool approved = decision.decision == kApproved;
  if (!approved && decision.decision != kDeclined) throw Refusal("the decision is unknown");
  if (!parse_time(decision.timestamp)) throw Refusal("the timestamp is invalid");
  if (decision.nonce.has_value() != approved || decision.expires_at.has_value() != approved) {
    throw Refusal("the nonce and the expiry do not fit the decision");
  }
  if (approved && !parse_time(*decision.expires_at)) throw Refusal("the expiry is invalid");
}

}  // namespace

std::shared_ptr<std::string> add_journal_option(CommandParser& parser) {
  auto path = std::make_shared<std::string>();
  parser.add_option("--journal", *path, "The journal of decisions; else KOVA_ADMIN_JOURNAL")
      .type_name("FILE")
      .not_empty();
  return path;
}

std::string journal_path(const std::string& option) {
  std::string path = option.empty() ? deployment_value("KOVA_ADMIN_JOURNAL") : option;
  if (path.empty()) throw Refusal("no journal is named: --journal FILE or KOVA_ADMIN_JOURNAL");
  return path;
}

std::string journal_line(const Decision& decision) {
  const Json line = {{"timestamp", decision.timestamp},
                     {"decision", decision.decision},
                     {"operator", decision.person},
                     {"host", decision.host},
                     {"reason", decision.reason},
                     {"policy", decision.policy},
                     {"client_id", decision.client_id},
                     {"database", decision.database},
                     {"type", decision.type},
                     {"table", decision.table},
                     {"statement", text_or_null(decision.statement)},
                     {"digest", decision.digest},
                     {"nonce", text_or_null(decision.nonce)},
                     {"expires_at", text_or_null(decision.expires_at)}};
  return json_line(line) + '\n';
}

Decision parse_decision(std::string_view text) {
  const Json line = Json::parse(text, nullptr, false);
  if (!line.is_object()) throw Refusal("the line is no JSON object");
  Decision decision;
  for (const TextMember& entry : kTextMembers) {
    const Json& value = member(line, entry.name);
    if (!value.is_string()) throw Refusal(fmt::format("the member {} is no text", entry.name));
    decision.*entry.field = value.get<std::string>();
  }
  for (const OptionalMember& entry : kOptionalMembers) {
    const Json& value = member(line, entry.name);
    if (value.is_null()) continue;
    if (!value.is_string()) throw Refusal(fmt::format("the member {} is no text", entry.name));
    decision.*entry.field = value.get<std::string>();
  }
  check_decision(decision);
  return decision;
}

void check_last_line(const std::string& path) {
  char last = '\n';
  std::size_t length = 0;
  if (read_file_end(path.c_str(), &last, 1, length) && length == 1 && last != '\n') {
    throw Refusal(path + ": the last line of the journal has no end");
  }
}

void append_decision(const std::string& path, const Decision& decision) {
  if (!append_durably(path.c_str(), journal_line(decision))) {
    throw Refusal(path + ": the journal cannot be written");
  }
}

std::vector<Decision> parse_journal(std::string_view text) {
  std::vector<Decision> decisions;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    try {
      if (end == text.npos) throw Refusal("the line has no end");
      decisions.push_back(parse_decision(text.substr(0, end)));
    } catch (const Refusal& refusal) {
      throw Refusal(fmt::format("line {}: {}", number, refusal.what()));
    }
    text.remove_prefix(end + 1);
  }
  return decisions;
}

std::vector<Decision> read_journal(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::exists(path_of(path), error) && !error) return {};
  const SecretText text = read_file(path, kJournalLimit);
  try {
    return parse_journal(text.view());
  } catch (const Refusal& refusal) {
    throw Refusal(path + ": " + refusal.what());
  }
}

}  // namespace kova::admin
