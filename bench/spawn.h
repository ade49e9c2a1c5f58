// A program with pipes on its standard input and output, started as cheaply as the system allows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kova_bench {

class Spawned {
 public:
  Spawned() = default;
  /// Closes the pipes and waits for the program.
  ~Spawned();
  Spawned(const Spawned&) = delete;
  Spawned& operator=(const Spawned&) = delete;

  /// Starts the program, with one argument if that is not null; it inherits this process's
  /// environment and standard error. Not to be called again before `wait`.
  [[nodiscard]] bool start(const char* path, const char* argument = nullptr);
  /// `start`, then one line to the program, one line from it, and its end.
  [[nodiscard]] bool run(const char* path, const char* argument, std::string_view line,
                         std::string& reply);
  [[nodiscard]] bool write(std::string_view bytes);
  /// Reads until a line feed, which stays out of the line. False at the end of output before one.
  /// What follows the line feed in the same read is dropped: a program replies to one line at a
  /// time.
  [[nodiscard]] bool read_line(std::string& line);
  void close_input();
  /// Waits for the end; true for exit code 0.
  [[nodiscard]] bool wait();
  /// Waits until no one holds the program's output any more. Wine starts a console host beside each
  /// program, which goes on for as long as the program itself took, and would burden what is
  /// measured next.
  void wait_for_companions();
  /// The physical memory that the running program holds, 0 when the system does not tell.
  [[nodiscard]] std::uint64_t resident_bytes() const;

 private:
  [[nodiscard]] std::size_t read_some(char* data, std::size_t size);

  std::intptr_t process_ = -1;
  std::intptr_t input_ = -1;
  std::intptr_t output_ = -1;
};

}  // namespace kova_bench
