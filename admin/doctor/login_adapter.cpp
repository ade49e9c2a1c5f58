#include "admin/doctor/login_adapter.h"

#include <fmt/format.h>

#include "platform/environment.h"
#include "platform/socket.h"

namespace kova::admin {

namespace {

struct Setting {
  const char* variable;
  std::size_t limit;
  std::string_view forbidden;
  bool may_be_empty;
};

constexpr Setting kSettings[] = {
    {.variable = "KOVA_MCP_SERVER", .limit = 253, .forbidden = {}, .may_be_empty = false},
    {.variable = "KOVA_MCP_PORT", .limit = 5, .forbidden = {}, .may_be_empty = false},
    {.variable = "KOVA_MCP_DATABASE", .limit = 63, .forbidden = ";", .may_be_empty = true},
    {.variable = "KOVA_MCP_USER", .limit = 63, .forbidden = ",;", .may_be_empty = false},
    {.variable = "KOVA_MCP_PASSWORD", .limit = 255, .forbidden = ";", .may_be_empty = false},
};

/// How far the last login came; the library's operations are watched through it.
struct Progress {
  DbSession::Loader* load_library = nullptr;
  ClientLibrary watched{};
  const ClientLibrary* original = nullptr;
  bool was_loaded = false;
  int statements = 0;
};

Progress& progress() {
  static Progress one;
  return one;
}

std::int64_t watched_exec(void* object, const char* statement) {
  ++progress().statements;
  return progress().original->exec(object, statement);
}

const ClientLibrary* watched_library() {
  Progress& one = progress();
  one.was_loaded = true;
  one.original = one.load_library();
  if (one.original == nullptr) return nullptr;
  one.watched = *one.original;
  one.watched.exec = watched_exec;
  return &one.watched;
}

bool resolves() {
  const SocketLayer layer;
  AddressList addresses;
  return layer.ready() && addresses.resolve(EnvironmentValue("KOVA_MCP_SERVER").c_str(),
                                            EnvironmentValue("KOVA_MCP_PORT").c_str());
}

}  // namespace

std::vector<std::string> setting_faults() {
  std::vector<std::string> faults;
  for (const Setting& setting : kSettings) {
    const EnvironmentValue value(setting.variable);
    const std::string_view text = value.view();
    if (text.empty() && !setting.may_be_empty) {
      faults.push_back(fmt::format("{} is not set", setting.variable));
    } else if (text.size() > setting.limit) {
      faults.push_back(fmt::format("{} has {} bytes, at most {} are allowed", setting.variable,
                                   text.size(), setting.limit));
    } else if (text.find_first_of(setting.forbidden) != std::string_view::npos) {
      faults.push_back(
          fmt::format("{} holds one of \"{}\"", setting.variable, setting.forbidden));
    }
  }
  return faults;
}

LoginStep try_login(DbSession::Loader* load_library) {
  progress() = {.load_library = load_library};
  DbSession session;
  session.load_library = watched_library;
  const bool logged_in = ensure_session(session);
  disconnect(session);
  if (logged_in) return LoginStep::kNone;
  if (!progress().was_loaded) {
    if (!setting_faults().empty()) return LoginStep::kSettings;
    return resolves() ? LoginStep::kConnect : LoginStep::kResolve;
  }
  if (progress().original == nullptr) return LoginStep::kLoad;
  switch (progress().statements) {
    case 0:
      return LoginStep::kStart;
    case 1:
      return LoginStep::kUse;
    default:
      return LoginStep::kLogin;
  }
}

}  // namespace kova::admin
