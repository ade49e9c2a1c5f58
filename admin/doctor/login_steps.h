// The login to the engine, step by step, by the code that serves.
#pragma once

#include <string>
#include <vector>

#include "admin/doctor/check.h"
#include "db/session.h"

namespace kova::admin {

/// Tries the login of the environment. One check for each step up to the one that fails; the steps
/// after it are left out. The session is closed again.
[[nodiscard]] std::vector<Check> check_login(DbSession::Loader* load_library);

/// What is wrong with a setting of the environment, and nothing of a secret's value.
[[nodiscard]] std::string setting_fault(LoginSetting setting);

}  // namespace kova::admin
