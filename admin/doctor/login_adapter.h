// Which step of the login failed.
#pragma once

#include <string>
#include <vector>

#include "db/session.h"

namespace kova::admin {

/// The steps in their order.
enum class LoginStep { kNone, kSettings, kResolve, kConnect, kLoad, kStart, kUse, kLogin };

/// Logs in and out again. Returns the step that failed, kNone when none did.
[[nodiscard]] LoginStep try_login(DbSession::Loader* load_library);

/// What is wrong with the five values of the login, one line each that names the variable; empty
/// when they can be used. Values are not told.
[[nodiscard]] std::vector<std::string> setting_faults();

}  // namespace kova::admin
