// What a command adds to its parser. The library behind it is included in two source files alone:
// its headers cost the compiler seconds in each file that includes them.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "admin/common/command_parser.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace kova::admin {

/// An option that was added; each function returns the option, so that several stand in a row. A
/// value that is refused ends the parsing with one line that names the option.
class CommandOption {
 public:
  explicit CommandOption(CLI::Option* option) : option_(option) {}

  /// What help shows for the value.
  CommandOption& type_name(const char* name);
  CommandOption& required();
  /// Refuses an empty value: what a script leaves empty must not count as left out.
  CommandOption& not_empty();
  /// Refuses what is none of these.
  CommandOption& one_of(std::initializer_list<const char*> values);
  /// Refuses a number outside of these, which are allowed themselves.
  CommandOption& between(int lowest, int highest);
  /// One value after each use of the option, which may be used several times.
  CommandOption& one_value_each();

 private:
  CLI::Option* option_;
};

/// The parser of one command. Values are written to the given places when the line is parsed; the
/// places must live until then, texts for as long as the program.
class CommandParser {
 public:
  explicit CommandParser(CLI::App& parser) : parser_(parser) {}

  /// A name without dashes is an argument that stands by its place.
  CommandOption add_option(const char* name, std::string& value, const char* text);
  CommandOption add_option(const char* name, std::vector<std::string>& values, const char* text);
  CommandOption add_option(const char* name, int& value, const char* text);
  /// The value stays empty when the option is not given; given as "" it is an empty text.
  CommandOption add_option(const char* name, std::optional<std::string>& value, const char* text);
  /// One that was added before.
  CommandOption get_option(const char* name);
  /// True when it is given.
  void add_flag(const char* name, bool& value, const char* text);
  /// What stands under the options in the help.
  void footer(const char* text);

 private:
  CLI::App& parser_;
};

}  // namespace kova::admin
