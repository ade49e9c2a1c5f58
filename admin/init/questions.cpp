#include "admin/init/questions.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <filesystem>

#include "admin/common/file_text.h"
#include "admin/common/printable.h"
#include "admin/common/refusal.h"
#include "admin/common/utf8.h"
#include "base/secret.h"
#include "base/text.h"
#include "platform/terminal.h"

namespace kova::admin {

namespace {

constexpr std::size_t kAnswerCapacity = 8192;
/// The longest password that the login takes, a line end, and one byte more to see that it is not.
constexpr std::size_t kPasswordFileLimit = 4096;

enum class Typing { kShown, kHidden };

/// Reads one answer from the terminal, which is opened for it.
SecretText ask_terminal(const char* option, const std::string& prompt, Typing typing) {
  Terminal terminal;
  if (!terminal.open()) {
    throw Refusal(fmt::format("{} is missing, and there is no terminal to ask on", option));
  }
  if (typing == Typing::kHidden && !terminal.hide_typed()) {
    throw Refusal(fmt::format("{} is missing, and the terminal shows what is typed", option));
  }
  char answer[kAnswerCapacity];
  const WipeGuard guard(answer);
  TextOut line(answer);
  if (!terminal.write(prompt) || !terminal.read_line(line)) {
    throw Refusal("interrupted; nothing is written");
  }
  return SecretText(answer);
}

/// No file of a deployment can hold such a value.
void check_text(const char* option, std::string_view value) {
  if (find_malformed(value) != std::string_view::npos) {
    throw Refusal(fmt::format("{}: the value is not UTF-8", option));
  }
  if (value.find_first_of(std::string_view("\n\r\0", 3)) != std::string_view::npos) {
    throw Refusal(fmt::format("{}: the value holds a line end or a NUL", option));
  }
}

/// One value: an option's, or an answer; an empty answer is the default.
std::string value_of(const char* option, const std::optional<std::string>& given,
                     std::string_view question, std::string_view fallback) {
  if (given) {
    check_text(option, *given);
    return *given;
  }
  const std::string prompt = fallback.empty() ? fmt::format("{}: ", question)
                                              : fmt::format("{} [{}]: ", question, fallback);
  const SecretText answer = ask_terminal(option, prompt, Typing::kShown);
  check_text(option, answer.view());
  return std::string(answer.view().empty() ? fallback : answer.view());
}

SecretText password_of(const InitOptions& options) {
  constexpr const char* kOption = "--password-file";
  SecretText password = options.password_file
                            ? read_file(*options.password_file, kPasswordFileLimit)
                            : ask_terminal(kOption, "Password (not shown): ", Typing::kHidden);
  if (options.password_file) cut_line_end(password);
  check_text(kOption, password.view());
  return password;
}

std::string offer_of(const Names& offered) {
  if (offered.empty()) return {};
  return printable(fmt::format(" (the engine has {})", fmt::join(offered, ", ")));
}

bool choice_of(const char* option, const std::optional<std::string>& given,
               std::string_view question, std::string_view no, std::string_view yes) {
  const std::string value = value_of(option, given, question, no);
  if (value != no && value != yes) {
    throw Refusal(fmt::format("{}: {} is neither {} nor {}", option, value, no, yes));
  }
  return value == yes;
}

void add_texts(CommandParser& parser, InitOptions& options) {
  const auto add = [&](const char* name, std::optional<std::string>& value, const char* text,
                       const char* type) { parser.add_option(name, value, text).type_name(type); };
  add("--folder", options.folder, "The folder to write into", "FOLDER");
  add("--server", options.server, "The engine's host", "HOST");
  add("--port", options.port, "The engine's port or service name", "PORT");
  add("--database", options.database, "The database", "NAME");
  add("--user", options.user, "The login's user", "NAME");
  add("--password-file", options.password_file,
      "A file with the login's password; asked for without it", "FILE");
  add("--client-id", options.client_id, "The client's name, as audit records tell it", "NAME");
  add("--name", options.name, "The policy's name, and the server's in the clients' entries",
      "NAME");
  add("--tables", options.tables, "The tables that may be read", "A,B");
  add("--denied-columns", options.denied_columns, "The columns that may never be read", "A,B");
  add("--collections", options.collections, "The AI collections that may be searched", "A,B");
  add("--write-tables", options.write_tables,
      "The tables that may be written with approval; --tables without it", "A,B");
  add("--writes", options.writes, "none, or approval: an operator approves each write", "KIND");
  add("--transport", options.transport, "stdio, or http: a listener behind a TLS proxy as well",
      "KIND");
  add("--http-port", options.http_port, "The listener's port, 8080 without it", "PORT");
}

}  // namespace

void add_init_options(CommandParser& parser, InitOptions& options) {
  add_texts(parser, options);
  parser.add_flag("--offline", options.offline, "Write without asking the engine");
  parser.add_flag("--json", options.json, R"(Print {"folder","files":[],"unknown_tables":[]})");
}

void ask_for_login(const InitOptions& options, Setup& setup) {
  const std::string folder =
      value_of("--folder", options.folder, "Folder to write into", "kova-mcp-deployment");
  if (folder.empty()) throw Refusal("--folder is empty");
  const std::filesystem::path absolute = std::filesystem::absolute(folder).lexically_normal();
  // A separator at the end leaves an empty last part.
  setup.folder = (absolute.has_filename() ? absolute : absolute.parent_path()).string();
  setup.server = value_of("--server", options.server, "Where the engine is: host", "127.0.0.1");
  setup.port = value_of("--port", options.port, "Its port or service name", "");
  setup.database = value_of("--database", options.database, "Database", "");
  setup.user = value_of("--user", options.user, "Login: user", "");
  setup.password = password_of(options);
}

void ask_for_policy(const InitOptions& options, const Names& offered, Setup& setup) {
  setup.client_id = value_of("--client-id", options.client_id, "The client's name", "desktop");
  setup.name = value_of("--name", options.name, "The policy's name", setup.database);
  setup.tables = split_names(
      value_of("--tables", options.tables, "Tables that may be read" + offer_of(offered), ""));
  setup.denied_columns = split_names(value_of("--denied-columns", options.denied_columns,
                                              "Columns that may never be read (none)", ""));
  setup.collections = split_names(value_of("--collections", options.collections,
                                           "AI collections that may be searched (none)", ""));
  setup.writes = choice_of("--writes", options.writes, "Writes: none, or approval for each one",
                           "none", "approval");
  setup.http =
      choice_of("--transport", options.transport, "Transport: stdio or http", "stdio", "http");
  setup.write_tables = options.write_tables
                           ? split_names(value_of("--write-tables", options.write_tables, "", ""))
                           : setup.tables;
  setup.http_port = options.http_port.value_or("8080");
}

}  // namespace kova::admin
