#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/console.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "support/child_modes.h"
#include "support/posix/child_modes.h"

namespace kova::testing {

void end_quietly_after_a_crash() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
}

void crash_now() {
  // A sanitizer's handler would turn the signal into an exit.
  std::signal(SIGSEGV, SIG_DFL);
  std::raise(SIGSEGV);
  std::abort();
}

bool open_inheritable_file(const char* path) {
  return open(path, O_RDWR | O_CREAT, 0600) > STDERR_FILENO;
}

void report_handles() {
  DIR* const folder = opendir("/proc/self/fd");
  if (folder == nullptr) std::abort();
  std::string report;
  while (const dirent* const entry = readdir(folder)) {
    const int descriptor = std::atoi(entry->d_name);
    if (descriptor <= STDERR_FILENO || descriptor == dirfd(folder)) continue;
    report += std::string(entry->d_name) + "\n";
  }
  closedir(folder);
  write_stdout(report.empty() ? "none\n" : report);
}

// The kernel forgets the signal for an executable with capabilities; it is taken away here instead.
void report_preparation() {
  prctl(PR_SET_PDEATHSIG, 0);
  prepare_process();
  char name[16] = {};
  int signal = -1;
  if (prctl(PR_GET_NAME, name) != 0 || prctl(PR_GET_PDEATHSIG, &signal) != 0) std::abort();
  write_stdout(std::string(name) + " signal " + std::to_string(signal) + "\n");
}

namespace {

constexpr std::string_view kReady = "ready\n";

int leave_an_orphan() {
  ChildProcess orphan;
  char ready[kReady.size()];
  if (!orphan.start(kChildOrphan)) return 1;
  return orphan.read_output(ready, sizeof ready) == sizeof ready ? 0 : 1;
}

// The kernel would end it with its parent, so it is as if that had ended before the signal was
// asked for.
int be_an_orphan() {
  const pid_t parent = getppid();
  prctl(PR_SET_PDEATHSIG, 0);
  write_stdout(kReady);
  while (getppid() == parent) sleep_thread(1);
  prepare_process();
  return kOrphanWentOn;
}

int echo_with_pipe_size() {
  std::string text;
  char block[65536];
  while (const std::size_t got = read_stdin(block, sizeof block)) text.append(block, got);
  write_stdout(std::to_string(fcntl(STDIN_FILENO, F_GETPIPE_SZ)) + "\n" + text);
  return 0;
}

}  // namespace

ChildMode find_platform_child_mode(std::string_view argument) {
  if (argument == kChildOrphaning) return leave_an_orphan;
  if (argument == kChildOrphan) return be_an_orphan;
  if (argument == kChildPipeSize) return echo_with_pipe_size;
  return nullptr;
}

}  // namespace kova::testing
