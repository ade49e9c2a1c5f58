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

[[noreturn]] void refuse_at(std::size_t column, const std::string& why) {
  throw Refusal(fmt::format("column {}: {}", column, why));
}

/// A line that is parsed: the text with its members.
struct ParsedLine {
  std::string_view text;
  Json members;
};

ParsedLine parse_line(std::string_view text) {
  ParsedLine line{.text = text, .members = {}};
  try {
    line.members = Json::parse(text);
  } catch (const Json::parse_error& error) {
    refuse_at(std::max<std::size_t>(error.byte, 1), "the line is no JSON object");
  }
  if (!line.members.is_object()) refuse_at(1, "the line is no JSON object");
  return line;
}

const Json& member(const ParsedLine& line, const char* name) {
  const auto found = line.members.find(name);
  if (found == line.members.end()) refuse_at(1, fmt::format("the member {} is missing", name));
  return *found;
}

/// The column of a member's name, or 1 where it is spelled in another way than the journal's own.
std::size_t column_of(const ParsedLine& line, const char* name) {
  const std::size_t index = line.text.find(fmt::format("\"{}\":", name));
  return index == line.text.npos ? 1 : index + 1;
}

std::string text_of(const ParsedLine& line, const char* name) {
  const Json& value = member(line, name);
  if (!value.is_string()) {
    refuse_at(column_of(line, name), fmt::format("the member {} is no text", name));
  }
  return value.get<std::string>();
}

void check_decision(const ParsedLine& line, const Decision& decision) {
  const bool approved = decision.decision == kApproved;
  if (!approved && decision.decision != kDeclined) {
    refuse_at(column_of(line, "decision"), "the decision is unknown");
  }
  if (!parse_time(decision.timestamp)) {
    refuse_at(column_of(line, "timestamp"), "the timestamp is invalid");
  }
  if (decision.nonce.has_value() != approved || decision.expires_at.has_value() != approved) {
    refuse_at(column_of(line, "nonce"), "the nonce and the expiry do not fit the decision");
  }
  if (approved && !parse_time(*decision.expires_at)) {
    refuse_at(column_of(line, "expires_at"), "the expiry is invalid");
  }
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
  const ParsedLine line = parse_line(text);
  Decision decision;
  for (const TextMember& entry : kTextMembers) decision.*entry.field = text_of(line, entry.name);
  for (const OptionalMember& entry : kOptionalMembers) {
    if (!member(line, entry.name).is_null()) decision.*entry.field = text_of(line, entry.name);
  }
  check_decision(line, decision);
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
      if (end == text.npos) refuse_at(text.size() + 1, "the line has no end");
      decisions.push_back(parse_decision(text.substr(0, end)));
    } catch (const Refusal& refusal) {
      throw Refusal(fmt::format("line {}, {}", number, refusal.what()));
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
