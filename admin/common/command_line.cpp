#include "admin/common/command_line.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "admin/common/output.h"
#include "admin/common/refusal.h"

namespace kova::admin {

namespace {

constexpr const char* kProgram = "kova-admin";

/// A command's parser together with what runs it.
struct Runner {
  CLI::App* parser;
  RunCommand run;
};

/// The parser of this name below `parent`, or null.
CLI::App* find_child(CLI::App& parent, const std::string& name) {
  const auto children =
      parent.get_subcommands([&](const CLI::App* child) { return child->get_name() == name; });
  return children.empty() ? nullptr : children.front();
}

/// The same, made when it is not there.
CLI::App* child_of(CLI::App& parent, const std::string& name, const std::string& summary) {
  CLI::App* const child = find_child(parent, name);
  return child != nullptr ? child : parent.add_subcommand(name, summary);
}

CLI::App* parser_of(CLI::App& root, const Command& command) {
  const std::string name(command.name);
  const std::size_t blank = name.find(' ');
  if (blank == std::string::npos) return child_of(root, name, command.summary);
  CLI::App* const parent = child_of(root, name.substr(0, blank), "Several commands");
  parent->require_subcommand(1);
  return child_of(*parent, name.substr(blank + 1), command.summary);
}

/// The help of the command that the words name. The parser's own help would be that of the command
/// on the line, which is `help`.
std::string help_of(CLI::App& root, const std::vector<std::string>& words) {
  CLI::App* parser = &root;
  std::string name = kProgram;
  for (const std::string& word : words) {
    parser = find_child(*parser, word);
    if (parser == nullptr) throw Refusal("there is no command " + word + "; try help");
    name += ' ' + word;
  }
  return root.get_formatter()->make_help(parser, name, CLI::AppFormatMode::Normal);
}

Runner add_help(CLI::App& root) {
  CLI::App* const parser = root.add_subcommand("help", "Show what a command does and its options");
  const auto words = std::make_shared<std::vector<std::string>>();
  parser->add_option("COMMAND", *words, "The command");
  return {.parser = parser, .run = [&root, words] {
            print(help_of(root, *words));
            return kExitFine;
          }};
}

}  // namespace

int run_command_line(std::span<const Command> commands, int count, char** arguments) {
  CLI::App root("Sets up, examines and approves for the MCP server.", kProgram);
  root.set_version_flag("--version", std::string("kova-admin ") + KOVA_VERSION);
  root.require_subcommand(0, 1);
  std::vector<Runner> runners;
  for (const Command& command : commands) {
    CLI::App* const parser = parser_of(root, command);
    CommandParser options(*parser);
    runners.push_back({.parser = parser, .run = command.add(options)});
  }
  runners.push_back(add_help(root));
  try {
    root.parse(count, arguments);
  } catch (const CLI::CallForHelp&) {
    print(root.help());
    return kExitFine;
  } catch (const CLI::CallForVersion& version) {
    print(std::string(version.what()) + '\n');
    return kExitFine;
  } catch (const CLI::ParseError& error) {
    throw Refusal(error.what());
  }
  for (const Runner& runner : runners) {
    if (runner.parser->parsed()) return runner.run();
  }
  throw Refusal("no command was named; try help");
}

}  // namespace kova::admin
