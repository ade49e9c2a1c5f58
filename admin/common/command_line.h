// The command line: a table of commands, their help and their exit codes.
#pragma once

#include <functional>
#include <span>

#include "admin/common/command_parser.h"

namespace kova::admin {

/// Exit codes of every command.
inline constexpr int kExitFine = 0;    ///< done; nothing found
inline constexpr int kExitFound = 1;   ///< done; something was found, or the person declined
inline constexpr int kExitCannot = 2;  ///< not done; one line on standard error says why

/// Runs a command whose options were parsed, and returns its exit code.
using RunCommand = std::function<int()>;

/// One command. `add` gives the parser the command's options and texts, and returns what runs it.
struct Command {
  const char* name;  ///< one word, or two separated by a blank
  const char* summary;
  RunCommand (*add)(CommandParser& parser);
};

/// Parses the line by the table and runs the command that it names; `help COMMAND` and `--help`
/// print help. Throws Refusal for a line that is wrong.
[[nodiscard]] int run_command_line(std::span<const Command> commands, int count, char** arguments);

}  // namespace kova::admin
