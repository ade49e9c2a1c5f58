#include "platform/environment_change.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "base/secret.h"
#include "base/text.h"

namespace kova {

bool set_environment_variable(const char* name, const char* value) {
  return ::setenv(name, value, 1) == 0;
}

void clear_environment_variable(const char* name) {
  char* const value = std::getenv(name);
  if (value != nullptr) wipe(value, std::strlen(value));
  ::unsetenv(name);
}

void visit_environment_names(void (*visit)(void* context, std::string_view name), void* context) {
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    visit(context, slice(text, 0, text.find('=')));
  }
}

}  // namespace kova
