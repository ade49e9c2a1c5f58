#include "app/trace.h"

#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "platform/console.h"
#include "platform/environment.h"

namespace kova {

namespace {

constexpr std::size_t kTraceCapacity = 512;

}  // namespace

void trace(const char* directives, ...) {
  const EnvironmentValue debug("KOVA_MCP_DEBUG");
  if (debug.view().empty() || debug.view() == "0") return;
  char line[kTraceCapacity];
  std::va_list arguments;
  va_start(arguments, directives);
  const int written = std::vsnprintf(line, sizeof line, directives, arguments);
  va_end(arguments);
  if (written > 0 && static_cast<std::size_t>(written) < sizeof line) {
    write_stderr({line, static_cast<std::size_t>(written)});
  }
}

}  // namespace kova
