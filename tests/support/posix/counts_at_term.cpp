// Part of the server in the coverage build: a listener, which only a signal ends, writes its counts
// at SIGTERM before it ends of it.
#include <csignal>

extern "C" void __gcov_dump();

namespace {

void write_counts(int signal) {
  __gcov_dump();
  std::raise(signal);
}

__attribute__((constructor)) void install() {
  struct sigaction action {};
  action.sa_handler = write_counts;
  action.sa_flags = static_cast<int>(SA_RESETHAND) | SA_NODEFER | SA_RESTART;
  sigaction(SIGTERM, &action, nullptr);
}

}  // namespace
