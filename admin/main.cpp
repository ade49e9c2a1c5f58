// kova-admin: the table of commands, and the one place where errors end.
#include <array>
#include <exception>

#include "admin/common/command_line.h"
#include "admin/common/output.h"
#include "platform/console.h"

namespace {

/// A command of two words stands below a parent of its first word.
constexpr std::array<kova::admin::Command, 0> kCommands = {};

}  // namespace

int main(int count, char** arguments) {
  kova::prepare_standard_streams();
  try {
    return kova::admin::run_command_line(kCommands, count, arguments);
  } catch (const std::exception& error) {
    kova::admin::print_error(error.what());
    return kova::admin::kExitCannot;
  }
}
