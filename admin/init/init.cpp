#include "admin/init/init.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "admin/common/json_output.h"
#include "admin/common/output.h"
#include "admin/common/printable.h"
#include "admin/common/refusal.h"
#include "admin/init/engine_tables.h"
#include "admin/init/questions.h"
#include "admin/init/texts.h"
#include "admin/init/writer.h"
#include "base/ascii.h"
#include "base/decimal.h"

namespace kova::admin {

namespace {

constexpr std::uint64_t kPortLimit = 65535;

/// The listener's port is a number; the engine's is a text that the resolver reads.
void check_http_port(const std::string& text) {
  const std::uint64_t port = whole_decimal(text).value_or(0);
  if (port < 1 || port > kPortLimit) {
    throw Refusal(fmt::format("--http-port: {} is no port", text));
  }
}

/// The engine's tables; none when it is not to be asked.
Names offered_tables(const InitOptions& options, const Setup& setup) {
  const LoginInUse login(setup);
  return options.offline ? Names() : engine_tables();
}

/// The tables of the setup that the engine does not have.
Names unknown_tables(const Setup& setup, const Names& offered) {
  Names unknown;
  for (const std::string& table : setup.tables) {
    const bool is_there = std::ranges::any_of(
        offered, [&](const std::string& name) { return equal_ignoring_case(name, table); });
    if (!is_there) unknown.push_back(table);
  }
  return unknown;
}

std::string summary(const Setup& setup, const Names& unknown) {
  const std::string environment = path_in(setup.folder, kEnvironmentName);
  std::string text = fmt::format(
      "Wrote {}:\n"
      "  {:<14}  what the client may do\n"
      "  {:<14}  the server's settings and secrets, for this account alone\n"
      "  {:<14}  starts the server\n"
      "  {:<14}  where used approvals are marked\n"
      "  {:<14}  entries for Claude Desktop, Claude Code, VS Code and Cursor\n"
      "Next: kova-admin doctor --env {}\n"
      "Then paste the entry of your client into its configuration.\n",
      setup.folder, kPolicyName, kEnvironmentName, start_script_name(), kStateName, kClientsName,
      environment);
  if (!unknown.empty()) {
    text += fmt::format("The engine does not list: {}\n", fmt::join(unknown, ", "));
  }
  if (setup.http) text += "Clients elsewhere reach the listener through a TLS proxy.\n";
  return text;
}

/// The summary's lines, each made safe to print.
void print_lines(const std::string& text) {
  std::string safe;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find('\n', begin);
    safe += printable(text.substr(begin, end - begin)) + '\n';
    begin = end + 1;
  }
  print(safe);
}

void tell(const InitOptions& options, const Setup& setup, const std::vector<std::string>& files,
          const Names& unknown) {
  if (options.json) {
    print_json({{"folder", setup.folder}, {"files", files}, {"unknown_tables", unknown}});
  } else {
    print_lines(summary(setup, unknown));
  }
}

int run(const InitOptions& options) {
  Setup setup;
  ask_for_login(options, setup);
  check_folder(setup);
  const Names offered = offered_tables(options, setup);
  ask_for_policy(options, offered, setup);
  check_http_port(setup.http_port);
  check_values(setup);
  const std::vector<std::string> files = write_deployment(setup);
  try {
    tell(options, setup, files, options.offline ? Names() : unknown_tables(setup, offered));
  } catch (const Refusal& refusal) {
    // The other exit codes say that nothing is there.
    print_error(fmt::format("{} is written, and {}", setup.folder, refusal.what()));
  }
  return kExitFine;
}

}  // namespace

RunCommand add_init(CommandParser& parser) {
  const auto options = std::make_shared<InitOptions>();
  parser.footer(
      "Writes a new deployment into one folder: the policy, the environment file with its "
      "secrets,\n"
      "the state directory, a start script, and the entries of clients. Asks for what no option\n"
      "says. Overwrites nothing; writes everything or nothing.\n"
      "Exit codes: 0 written, 2 nothing written.");
  add_init_options(parser, *options);
  return [options] { return run(*options); };
}

}  // namespace kova::admin
