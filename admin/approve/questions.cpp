#include "admin/approve/questions.h"

#include "admin/common/refusal.h"
#include "admin/common/utf8.h"

namespace kova::admin {

namespace {

constexpr std::size_t kReplyCapacity = 4096;

std::string ask(Terminal& terminal, std::string_view prompt) {
  show(terminal, prompt);
  char reply[kReplyCapacity] = {};
  if (!terminal.read_line(reply)) {
    throw Refusal("the terminal closed or was interrupted: nothing was decided");
  }
  return reply;
}

}  // namespace

void show(Terminal& terminal, std::string_view text) {
  if (!terminal.write(text)) throw Refusal("the terminal cannot be written");
}

std::string ask_reason(Terminal& terminal) {
  std::string reason = ask(terminal, "\nReason: ");
  if (reason.find_first_not_of(" \t") == std::string::npos) {
    throw Refusal("a reason is required: nothing was decided");
  }
  if (find_malformed(reason) != std::string::npos) throw Refusal("the reason is not UTF-8");
  return reason;
}

bool ask_confirmation(Terminal& terminal) {
  return ask(terminal, "Sign this statement? Type yes: ") == "yes";
}

}  // namespace kova::admin
