#include "engine/log.h"

#include <string>

#include "platform/console.h"

namespace kova::sample {

void Log::statement(std::uint64_t session, std::string_view what, std::string_view outcome,
                    std::uint64_t milliseconds) const {
  if (!on_) return;
  std::string line(what);
  line.append(" -> ").append(outcome);
  line.append(" (").append(std::to_string(milliseconds)).append(" ms)");
  event(session, line);
}

void Log::event(std::uint64_t session, std::string_view what) const {
  if (!on_) return;
  std::string line = "session " + std::to_string(session) + ": ";
  line.append(what).append("\n");
  write_stderr(line);
}

}  // namespace kova::sample
