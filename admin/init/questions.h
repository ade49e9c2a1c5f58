// What `init` is told by options, and asks for otherwise.
#pragma once

#include <optional>
#include <string>

#include "admin/common/command_line.h"
#include "admin/init/setup.h"

namespace kova::admin {

/// The options as they were given.
struct InitOptions {
  std::optional<std::string> folder, server, port, database, user, password_file, client_id, name,
      tables, denied_columns, collections, write_tables, writes, transport, http_port;
  bool offline = false;
  bool json = false;
};

void add_init_options(CommandParser& parser, InitOptions& options);

/// Fills what the engine must be asked with. Throws Refusal for a question without a terminal.
void ask_for_login(const InitOptions& options, Setup& setup);

/// Fills the rest; `offered` are the engine's tables, empty when it was not asked.
void ask_for_policy(const InitOptions& options, const Names& offered, Setup& setup);

}  // namespace kova::admin
