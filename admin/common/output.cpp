#include "admin/common/output.h"

#include <string>

#include "admin/common/printable.h"
#include "admin/common/refusal.h"
#include "platform/console.h"
#include "platform/environment.h"
#include "platform/terminal.h"

namespace kova::admin {

void print(std::string_view text) {
  if (!write_all_to_stdout(text)) throw Refusal("standard output cannot be written");
}

void print_error(std::string_view message) {
  write_stderr("kova-admin: " + printable(message) + '\n');
}

bool colour_is_wanted() {
  return EnvironmentValue("NO_COLOR").view().empty() && EnvironmentValue("TERM").view() != "dumb";
}

bool stdout_has_colour() {
  return colour_is_wanted() && stdout_takes_colours();
}

std::string_view colour_code(Colour colour) {
  switch (colour) {
    case Colour::kGreen:
      return "\x1b[32m";
    case Colour::kYellow:
      return "\x1b[33m";
    case Colour::kRed:
      return "\x1b[31m";
    case Colour::kBold:
      return "\x1b[1m";
    case Colour::kNone:
      break;
  }
  return "\x1b[0m";
}

}  // namespace kova::admin
