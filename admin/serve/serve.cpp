#include "admin/serve/serve.h"

#include <memory>
#include <string>

#include "admin/common/deployment.h"
#include "admin/common/refusal.h"
#include "admin/common/server_path.h"
#include "platform/program.h"

namespace kova::admin {

namespace {

struct ServeOptions {
  std::shared_ptr<std::string> environment_file;
  std::string port;
};

int run(const ServeOptions& options) {
  use_deployment(*options.environment_file);
  const std::string server = server_beside();
  const bool http = !options.port.empty();
  const int exit_code = become_program(server.c_str(), http ? "--http" : nullptr,
                                       http ? options.port.c_str() : nullptr);
  if (exit_code < 0) throw Refusal(server + " cannot be started");
  return exit_code;
}

}  // namespace

RunCommand add_serve(CommandParser& parser) {
  const auto options = std::make_shared<ServeOptions>();
  parser.footer(
      "Starts the server with the environment of a file, on standard input and output or, with\n"
      "--http, on a port of this machine. The server is kova-mcp beside kova-admin.\n"
      "Exit codes: the server's, or 2 when it cannot be started.");
  options->environment_file = add_env_option(parser);
  parser.get_option("--env").required();
  parser.add_option("--http", options->port, "The port to listen on, behind a TLS proxy")
      .type_name("PORT")
      .between(1, 65535);
  return [options] { return run(*options); };
}

}  // namespace kova::admin
