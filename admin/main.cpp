// kova-admin: the table of commands, and the one place where errors end.
#include <array>
#include <exception>

#include "admin/common/command_line.h"
#include "admin/common/output.h"
#include "admin/doctor/doctor.h"
#include "admin/init/init.h"
#include "admin/serve/serve.h"
#include "platform/console.h"

namespace {

/// A command of two words stands below a parent of its first word.
constexpr std::array kCommands = {
    kova::admin::Command{.name = "init",
                         .summary = "Write a new deployment into a folder",
                         .add = kova::admin::add_init},
    kova::admin::Command{.name = "doctor",
                         .summary = "Find what is wrong with a deployment",
                         .add = kova::admin::add_doctor},
    kova::admin::Command{.name = "serve",
                         .summary = "Start the server with the environment of a file",
                         .add = kova::admin::add_serve},
};

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
