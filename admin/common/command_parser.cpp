#include "admin/common/command_parser.h"

#include <CLI/CLI.hpp>

namespace kova::admin {

CommandOption& CommandOption::type_name(const char* name) {
  option_->type_name(name);
  return *this;
}

CommandOption& CommandOption::required() {
  option_->required();
  return *this;
}

CommandOption& CommandOption::not_empty() {
  const auto check = [](const std::string& value) {
    return value.empty() ? "the value is empty" : "";
  };
  option_->check(CLI::Validator(check, ""));
  return *this;
}

CommandOption& CommandOption::one_of(std::initializer_list<const char*> values) {
  option_->check(CLI::IsMember(std::vector<std::string>(values.begin(), values.end())));
  return *this;
}

CommandOption& CommandOption::between(int lowest, int highest) {
  option_->check(CLI::Range(lowest, highest));
  return *this;
}

CommandOption& CommandOption::one_value_each() {
  option_->allow_extra_args(false);
  return *this;
}

CommandOption CommandParser::add_option(const char* name, std::string& value, const char* text) {
  return CommandOption(parser_.add_option(name, value, text));
}

CommandOption CommandParser::add_option(const char* name, std::vector<std::string>& values,
                                        const char* text) {
  return CommandOption(parser_.add_option(name, values, text));
}

CommandOption CommandParser::add_option(const char* name, int& value, const char* text) {
  return CommandOption(parser_.add_option(name, value, text));
}

// The library would take an empty text for a missing one.
CommandOption CommandParser::add_option(const char* name, std::optional<std::string>& value,
                                        const char* text) {
  const auto set = [&value](const std::string& given) { value = given; };
  return CommandOption(parser_.add_option_function<std::string>(name, set, text));
}

CommandOption CommandParser::get_option(const char* name) {
  return CommandOption(parser_.get_option(name));
}

void CommandParser::add_flag(const char* name, bool& value, const char* text) {
  parser_.add_flag(name, value, text);
}

void CommandParser::footer(const char* text) {
  parser_.footer(text);
}

}  // namespace kova::admin
