// The tables that the engine offers.
#pragma once

#include <string_view>

#include "admin/init/setup.h"

namespace kova::admin {

/// The login's values in this process's environment until destruction, which wipes them.
class LoginInUse {
 public:
  /// Throws Refusal, with the option, for a value outside its limits.
  explicit LoginInUse(const Setup& setup);
  ~LoginInUse();
  LoginInUse(const LoginInUse&) = delete;
  LoginInUse& operator=(const LoginInUse&) = delete;
};

/// Logs in with the values of this process's environment and asks for the tables. Throws Refusal,
/// which names the step, when the engine does not let it in.
[[nodiscard]] Names engine_tables();

/// The first column of a statement's result, without what is no safe name.
[[nodiscard]] Names names_in(std::string_view result);

}  // namespace kova::admin
