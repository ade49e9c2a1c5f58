// The least that a server does for a call in a process of its own: the reading thread hands each
// line to a second thread, which it keeps; that one starts a program as cheaply as the system
// allows, gives it the line, reads one line from it, waits for its end and passes its line on.
//
//   relay PROGRAM
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "spawn.h"

namespace kova_bench {

namespace {

class Relay {
 public:
  explicit Relay(const char* program) : program_(program), thread_([this] { serve(); }) {}
  ~Relay() {
    {
      const std::lock_guard guard(mutex_);
      ending_ = true;
    }
    changed_.notify_one();
    thread_.join();
  }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  /// One line at a time: its reply has come before the next one.
  void hand_over(std::string line) {
    {
      const std::lock_guard guard(mutex_);
      line_ = std::move(line);
    }
    changed_.notify_one();
  }

 private:
  void serve() {
    for (std::string line; next(line);) {
      if (!pass_on(line)) std::_Exit(1);
    }
  }

  /// False once there will be no more.
  [[nodiscard]] bool next(std::string& line) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return ending_ || !line_.empty(); });
    line = std::exchange(line_, {});
    return !line.empty();
  }

  [[nodiscard]] bool pass_on(const std::string& line) const {
    Spawned child;
    std::string reply;
    if (!child.run(program_, nullptr, line, reply)) return false;
    reply += '\n';
    return std::fwrite(reply.data(), 1, reply.size(), stdout) == reply.size() &&
           std::fflush(stdout) == 0;
  }

  const char* program_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string line_;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace

}  // namespace kova_bench

int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: %s PROGRAM\n", arguments[0]);
    return 2;
  }
  kova_bench::Relay relay(arguments[1]);
  char line[4096];
  while (std::fgets(line, sizeof line, stdin) != nullptr) relay.hand_over(line);
  return 0;
}
