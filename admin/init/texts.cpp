#include "admin/init/texts.h"

#include <fmt/format.h>

#include <cstdint>

#include "admin/common/refusal.h"
#include "base/secret.h"
#include "platform/crypto.h"
#include "platform/file.h"

namespace kova::admin {

namespace {

constexpr std::size_t kSecretSize = 32;
constexpr unsigned kApprovalSeconds = 300;
/// Room for the lines of the longest values.
constexpr std::size_t kEnvironmentCapacity = 32768;

bool is_windows() {
  return kPathSeparator == '\\';
}

SecretText draw_secret() {
  std::uint8_t bytes[kSecretSize];
  const WipeGuard guard(bytes);
  if (!random_bytes(bytes, sizeof bytes)) throw Refusal("the system gives no random bytes");
  SecretText text(2 * kSecretSize);
  text.cut(0);
  for (const std::uint8_t byte : bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    text.add(kDigits[byte >> 4]);
    text.add(kDigits[byte & 15]);
  }
  return text;
}

void add(SecretText& text, std::string_view more) {
  for (const char byte : more) text.add(byte);
}

void add_line(SecretText& text, std::string_view name, std::string_view value) {
  add(text, name);
  text.add('=');
  add(text, quoted_value(value).view());
  text.add('\n');
}

std::string single_quoted(std::string_view text) {
  std::string quoted = "'";
  for (const char byte : text) {
    if (byte == '\'') {
      quoted += R"('\'')";
    } else {
      quoted += byte;
    }
  }
  return quoted + "'";
}

std::string doubled_percents(std::string_view text) {
  std::string doubled;
  for (const char byte : text) doubled.append(byte == '%' ? 2 : 1, byte);
  return doubled;
}

}  // namespace

std::string start_script_name() {
  return is_windows() ? "start.cmd" : "start.sh";
}

std::string path_in(const std::string& folder, std::string_view name) {
  return fmt::format("{}{}{}", folder, kPathSeparator, name);
}

Json policy_document(const Setup& setup, const std::string& state_directory) {
  const bool writes = setup.writes;
  return {{"version", 1},
          {"name", setup.name},
          {"client_id", setup.client_id},
          {"database", setup.database},
          {"database_user", setup.user},
          {"reads_enabled", true},
          {"provider_reads_enabled", !setup.collections.empty()},
          {"writes_enabled", writes},
          {"approval_required", true},
          {"allowed_tables", setup.tables},
          {"denied_columns", setup.denied_columns},
          {"allowed_collections", setup.collections},
          {"write_tables", writes ? setup.write_tables : Names()},
          {"write_types", writes ? Names{"INSERT", "UPDATE", "DELETE"} : Names()},
          {"approval_ttl_seconds", kApprovalSeconds},
          {"approval_state_directory", state_directory}};
}

DrawnSecrets draw_secrets() {
  return {.approval = draw_secret(), .bearer_token = draw_secret()};
}

SecretText quoted_value(std::string_view value) {
  if (value.find_first_of(std::string_view("\n\r\0", 3)) != std::string_view::npos) {
    throw Refusal("a value with a line end or a NUL fits into no environment file");
  }
  const bool is_single = value.find('\'') == std::string_view::npos;
  const char quote = is_single ? '\'' : '"';
  SecretText quoted(2 * value.size() + 2);
  quoted.cut(0);
  quoted.add(quote);
  for (const char byte : value) {
    if (!is_single && std::string_view("\"\\`$").find(byte) != std::string_view::npos) {
      quoted.add('\\');
    }
    quoted.add(byte);
  }
  quoted.add(quote);
  return quoted;
}

SecretText environment_text(const Setup& setup, const DrawnSecrets& secrets) {
  SecretText text(kEnvironmentCapacity);
  text.cut(0);
  add(text,
      "# The server's settings and secrets: for the account that runs it, and nobody else.\n");
  add_line(text, "KOVA_MCP_POLICY", path_in(setup.folder, kPolicyName));
  add_line(text, "KOVA_MCP_CLIENT_ID", setup.client_id);
  add_line(text, "KOVA_MCP_DATABASE", setup.database);
  add_line(text, "KOVA_MCP_USER", setup.user);
  add_line(text, "KOVA_MCP_PASSWORD", setup.password.view());
  add_line(text, "KOVA_MCP_SERVER", setup.server);
  add_line(text, "KOVA_MCP_PORT", setup.port);
  add_line(text, "KOVA_MCP_AUDIT", path_in(setup.folder, kAuditName));
  if (setup.writes) {
    add_line(text, "KOVA_MCP_APPROVAL_SECRET", secrets.approval.view());
    add(text, "# Where kova-admin approve writes each decision down.\n");
    add_line(text, "KOVA_ADMIN_JOURNAL", path_in(setup.folder, kJournalName));
  }
  if (setup.http) add_line(text, "KOVA_MCP_HTTP_BEARER_TOKEN", secrets.bearer_token.view());
  add(text,
      "# 1 stops all writes, or all searches that need a provider, from the next start on.\n"
      "#KOVA_MCP_DISABLE_WRITES=1\n#KOVA_MCP_DISABLE_PROVIDERS=1\n");
  return text;
}

std::string start_script(const Setup& setup, const std::string& own_executable) {
  const std::string environment = path_in(setup.folder, kEnvironmentName);
  const std::string http = setup.http ? " --http " + setup.http_port : "";
  if (is_windows()) {
    return fmt::format("@\"{}\" serve --env \"{}\"{}\r\n", doubled_percents(own_executable),
                       doubled_percents(environment), http);
  }
  return fmt::format("#!/bin/sh\nexec {} serve --env {}{}\n", single_quoted(own_executable),
                     single_quoted(environment), http);
}

std::vector<ClientEntry> client_entries(const Setup& setup, const std::string& own_executable) {
  const Json command = {
      {"command", own_executable},
      {"args", Json::array({"serve", "--env", path_in(setup.folder, kEnvironmentName)})}};
  Json typed = {{"type", "stdio"}};
  typed.update(command);
  return {
      {.file_name = "claude-desktop.json", .document = {{"mcpServers", {{setup.name, command}}}}},
      {.file_name = "claude-code.json", .document = {{"mcpServers", {{setup.name, typed}}}}},
      {.file_name = "vscode.json", .document = {{"servers", {{setup.name, typed}}}}},
      {.file_name = "cursor.json", .document = {{"mcpServers", {{setup.name, command}}}}}};
}

}  // namespace kova::admin
