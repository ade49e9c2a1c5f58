// What a command throws when it cannot do its work.
#pragma once

#include <stdexcept>

namespace kova::admin {

/// One line without its end that says what is wrong and where. It may hold untrusted text: the
/// place that prints it escapes that. Ends the command with kExitCannot.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace kova::admin
