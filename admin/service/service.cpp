#include "admin/service/service.h"

#include <fmt/format.h>

#include <memory>
#include <string>

#include "admin/common/deployment.h"
#include "admin/common/output.h"
#include "admin/common/refusal.h"
#include "admin/common/server_path.h"
#include "platform/file.h"
#include "platform/file_rights.h"
#include "platform/private_files.h"
#include "platform/service_control.h"
#include "platform/service_process.h"

namespace kova::admin {

namespace {

/// The account is NT SERVICE\kova-mcp.
constexpr const char* kName = "kova-mcp";
constexpr std::uint32_t kStartMs = 30000;
constexpr std::uint32_t kStopMs = 30000;
constexpr const char* kServiceToken = "KOVA_MCP_HTTP_BEARER_TOKEN";

struct ServiceOptions {
  std::shared_ptr<std::string> environment_file;
  std::string port;
};

/// Ends the command unless the system has services.
void need_services() {
  if (!kHasServices) {
    throw Refusal(
        "services are a matter of Windows; on Linux start an instance of the systemd unit "
        "kova-mcp-http@.service, see deploy/README.md");
  }
}

std::string said_of(const ServiceResult& result) {
  switch (result.outcome) {
    case ServiceOutcome::kDone:
      return {};
    case ServiceOutcome::kDenied:
      return "the service manager refuses; run the command as an administrator";
    case ServiceOutcome::kExists:
      return "the service is installed already; remove it first";
    case ServiceOutcome::kMissing:
      return "the service is not installed";
    case ServiceOutcome::kRunning:
      return "the service is running";
    case ServiceOutcome::kNotRunning:
      return "the service is not running";
    case ServiceOutcome::kRefused:
      return "the service did not start; the application's event log says why";
    case ServiceOutcome::kTimedOut:
      return "the service has not finished in time";
    case ServiceOutcome::kMarkedDeleted:
      return "the service is being removed; close the programs that show it";
    case ServiceOutcome::kFailed:
      break;
  }
  return fmt::format("the service manager failed with the error {} of Windows", result.error);
}

int finish(const ServiceResult& result, const char* done) {
  if (result.outcome != ServiceOutcome::kDone) throw Refusal(said_of(result));
  print(done);
  return kExitFine;
}

void check_environment_path(const std::string& path) {
  if (!is_canonical_path(path.c_str())) {
    throw Refusal(path + ": the path of the environment file must be absolute and canonical");
  }
}

/// Refuses secrets that others may read. The file belongs to an administrator, or to this account.
void judge_environment_file(const std::string& path) {
  FileRights rights;
  if (!read_file_rights(path.c_str(), rights)) throw Refusal(path + ": its rights cannot be read");
  if (rights.others_read || rights.others_write) {
    throw Refusal(path + ": every account may read or change it");
  }
  if (rights.group_reads || rights.group_writes) {
    throw Refusal(fmt::format("{}: {} may read or change it", path, rights.group));
  }
}

int install(const ServiceOptions& options) {
  need_services();
  const std::string& file = *options.environment_file;
  check_environment_path(file);
  use_deployment(file);
  static_cast<void>(load_policy());
  if (deployment_value(kServiceToken).empty()) {
    throw Refusal(fmt::format("{}: {} is not set", file, kServiceToken));
  }
  const std::string server = server_beside();
  if (!path_exists(server.c_str())) throw Refusal(server + ": the server is not there");
  const std::string command_line =
      fmt::format(R"("{}" service run --env "{}" --http {})", own_executable(), file, options.port);
  const ServiceResult result =
      install_service({.name = kName,
                       .title = "kova-mcp HTTP listener",
                       .description = "Policy-controlled access of AI clients to an SQL database.",
                       .command_line = command_line.c_str(),
                       .restart_ms = {1000, 5000, 60000}});
  if (result.outcome == ServiceOutcome::kDone && !give_file_to_service(file.c_str(), kName)) {
    static_cast<void>(remove_service(kName));
    throw Refusal(file + ": its rights cannot be set; nothing is installed");
  }
  return finish(result, "Installed kova-mcp; kova-admin service start starts it.\n");
}

/// What the service manager starts. Its streams lead nowhere: a failure goes to the event log.
int run_process(const ServiceOptions& options) {
  need_services();
  const std::string& file = *options.environment_file;
  try {
    check_environment_path(file);
    judge_environment_file(file);
    use_deployment(file);
  } catch (const Refusal& refusal) {
    log_event(kName, EventKind::kError, refusal.what());
    throw;
  }
  const std::string server = server_beside();
  const bool ran = run_service({.name = kName,
                                .path = server.c_str(),
                                .arguments = {"--http", options.port.c_str()},
                                .started = "The HTTP listener has been started.",
                                .stopped = "The HTTP listener and its sessions have been ended.",
                                .not_started = "kova-mcp beside kova-admin cannot be started.",
                                .ended = "The HTTP listener has ended by itself."});
  if (!ran) throw Refusal("the service manager did not start this process; see service start");
  return kExitFine;
}

std::shared_ptr<ServiceOptions> add_options(CommandParser& parser) {
  auto options = std::make_shared<ServiceOptions>();
  options->environment_file = add_env_option(parser);
  parser.get_option("--env").required();
  parser.add_option("--http", options->port, "The port to listen on, behind a TLS proxy")
      .type_name("PORT")
      .required()
      .between(1, 65535);
  return options;
}

}  // namespace

RunCommand add_service_install(CommandParser& parser) {
  parser.footer(
      "Installs the HTTP listener as the service kova-mcp, which starts with Windows under the\n"
      "account NT SERVICE\\kova-mcp and again after a failure. The environment file may then be\n"
      "read by that account and by administrators alone. Windows only.\n"
      "Exit codes: 0 installed, 2 nothing installed.");
  const auto options = add_options(parser);
  return [options] { return install(*options); };
}

RunCommand add_service_start(CommandParser& parser) {
  parser.footer("Waits until the service runs. Windows only.\nExit codes: 0 running, 2 not.");
  return [] {
    need_services();
    return finish(start_service(kName, kStartMs), "Started kova-mcp.\n");
  };
}

RunCommand add_service_stop(CommandParser& parser) {
  parser.footer(
      "Ends the listener, its sessions and their calls. Windows only.\n"
      "Exit codes: 0 stopped, 2 not.");
  return [] {
    need_services();
    return finish(stop_service(kName, kStopMs), "Stopped kova-mcp.\n");
  };
}

RunCommand add_service_remove(CommandParser& parser) {
  parser.footer(
      "Removes a service that is stopped; files stay as they are. Windows only.\n"
      "Exit codes: 0 removed, 2 not.");
  return [] {
    need_services();
    return finish(remove_service(kName), "Removed kova-mcp.\n");
  };
}

RunCommand add_service_run(CommandParser& parser) {
  parser.footer("What the service manager starts; started by hand, it does nothing. Windows only.");
  const auto options = add_options(parser);
  return [options] { return run_process(*options); };
}

}  // namespace kova::admin
