#include "os.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>

namespace scripted {

namespace {

int log_descriptor = -1;

void write_all(int descriptor, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(descriptor, text.data() + done, text.size() - done);
    if (written <= 0) return;
    done += static_cast<std::size_t>(written);
  }
}

const char* kind_of(int descriptor) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) return "unknown";
  if (S_ISFIFO(status.st_mode)) return "pipe";
  if (S_ISREG(status.st_mode)) return "file";
  if (S_ISSOCK(status.st_mode)) return "socket";
  return "other";
}

}  // namespace

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

unsigned long process_id() {
  return static_cast<unsigned long>(::getpid());
}

void append_to_log(const std::string& path, const std::string& line) {
  if (log_descriptor < 0) {
    log_descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  }
  if (::write(log_descriptor, line.data(), line.size()) < 0) std::exit(98);
}

void sleep_ms(unsigned milliseconds) {
  timespec left{};
  left.tv_sec = static_cast<time_t>(milliseconds / 1000);
  left.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
  while (::nanosleep(&left, &left) != 0) {
  }
}

// The default action comes back first: a handler of the host's would turn the crash into an exit.
void crash() {
  ::signal(SIGSEGV, SIG_DFL);
  ::raise(SIGSEGV);
  ::_exit(97);
}

void hang() {
  for (;;) ::pause();
}

void exit_now(unsigned code) {
  ::_exit(static_cast<int>(code));
}

unsigned long leave_process() {
  const pid_t child = ::fork();
  if (child == 0) hang();
  if (child < 0) std::exit(96);
  return static_cast<unsigned long>(child);
}

void write_stdout(const std::string& text) {
  write_all(STDOUT_FILENO, text);
}
void write_stderr(const std::string& text) {
  write_all(STDERR_FILENO, text);
}

std::string open_streams() {
  std::string out;
  DIR* folder = ::opendir("/proc/self/fd");
  if (folder == nullptr) return "none";
  while (const dirent* entry = ::readdir(folder)) {
    const int descriptor = std::atoi(entry->d_name);
    if (entry->d_name[0] == '.' || descriptor == ::dirfd(folder) || descriptor == log_descriptor) {
      continue;
    }
    out += (out.empty() ? "" : " ") + std::string(entry->d_name) + ":" + kind_of(descriptor);
  }
  ::closedir(folder);
  return out;
}

}  // namespace scripted
