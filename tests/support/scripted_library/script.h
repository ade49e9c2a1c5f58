// The script that tells the client library of the tests what to return and how to fail.
//
// One directive per line, its fields separated by tabs; an empty line and one that begins with "#"
// are skipped. A field may hold \\ \t \n \r \0 \xHH, and \*COUNT;C for COUNT times the character C
// (which may itself be an escape). A field that is \N alone is a null pointer.
//
//   rule OPERATION MATCH [TEXT]   begins a rule; OPERATION is the name behind "KOVA_" and MATCH is
//                                 any, exact or prefix. TEXT is held against the statement of
//                                 Exec, HOST:PORT of StartVantreo, and for every other operation
//                                 the number of its call in this process, from 1
//   times N                       the rule serves N calls of this process and is skipped after
// What a matched call does, in the script's order:
//   sleep MILLISECONDS | crash | hang | exit CODE
//   stdout TEXT | stderr TEXT     written to the process's own stream
//   streams                       logs what the process has open
//   leave                         starts a process that has the same standard output and error and
//                                 waits for good, and logs "left" with its number
//   locale NAME                   sets the process's locale, and logs "locale" with the decimal
//                                 point that numbers have from then on
// What it returns (the defaults: success, status OK, no columns, no rows):
//   null                          a null pointer, from the operations that make something
//   result N                      of Exec, 64 bits
//   status TEXT
//   column NAME                   one more column
//   fields N                      a column count other than the number of the columns
//   row CELL...                   one more row
//   repeat N CELL...              the row N times
//
// The first rule that matches serves the call; a call without a rule succeeds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace scripted {

using Text = std::optional<std::string>;

enum class Match { kAny, kExact, kPrefix };
enum class Act { kSleep, kCrash, kHang, kExit, kStdout, kStderr, kStreams, kLeave, kLocale };

struct Action {
  Act act;
  unsigned number = 0;
  std::string text;
};

struct Rows {
  std::uint64_t count;
  std::vector<Text> cells;
};

struct Rule {
  std::string operation;
  Match match = Match::kAny;
  std::string text;
  std::optional<std::uint64_t> times;
  std::vector<Action> actions;
  bool null = false;
  std::int64_t result = 1;
  Text status = "OK";
  std::vector<Text> columns;
  std::optional<int> fields;
  std::vector<Rows> rows;
};

/// The rules of a script. A line that cannot be read ends the process with a message: a test with
/// a wrong script must not pass.
std::vector<Rule> parse_script(const std::string& script);

/// The text on one line of printable ASCII, in the script's own escapes.
std::string escaped(const std::string& text);

}  // namespace scripted
