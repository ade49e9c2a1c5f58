// Part of the unit tests in a build for mutation testing.
//
// KOVA_MUTANT          the number of the change that is made
// KOVA_MUTANT_REACHED  a file with one byte a number, shared with child processes: where the
//                      changes that a test comes by are marked
// KOVA_MUTANT_LOG      where one line a test goes: name, processor time and time in ms, numbers
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int kova_mutant_chosen = 0;
unsigned char* kova_mutant_reached = nullptr;

namespace {

std::size_t numbers = 0;

void share(const char* path) {
  const int file = open(path, O_RDWR | O_CLOEXEC);
  struct stat status {};
  if (file < 0 || fstat(file, &status) != 0) std::abort();
  numbers = static_cast<std::size_t>(status.st_size);
  void* const bytes = mmap(nullptr, numbers, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (bytes == MAP_FAILED) std::abort();
  close(file);
  kova_mutant_reached = static_cast<unsigned char*>(bytes);
}

__attribute__((constructor(101))) void choose() {
  if (const char* const number = std::getenv("KOVA_MUTANT")) kova_mutant_chosen = std::atoi(number);
  if (const char* const path = std::getenv("KOVA_MUTANT_REACHED")) share(path);
}

double processor_ms(int whose) {
  rusage usage{};
  getrusage(whose, &usage);
  const auto ms = [](const timeval& time) {
    return 1e3 * static_cast<double>(time.tv_sec) + 1e-3 * static_cast<double>(time.tv_usec);
  };
  return ms(usage.ru_utime) + ms(usage.ru_stime);
}

double processor_ms() {
  return processor_ms(RUSAGE_SELF) + processor_ms(RUSAGE_CHILDREN);
}

class Log : public ::testing::EmptyTestEventListener {
 public:
  explicit Log(const char* path) : path_(path) {}

  // A child process of a test does not come here. What was reached before belongs to no test.
  void OnTestProgramStart(const ::testing::UnitTest& /*tests*/) override {
    file_ = std::fopen(path_, "we");
    if (file_ == nullptr) std::abort();
    write("", 0, 0);
  }

  void OnTestStart(const ::testing::TestInfo& /*test*/) override {
    processor_ = processor_ms();
    start_ = Clock::now();
  }

  void OnTestEnd(const ::testing::TestInfo& test) override {
    const std::chrono::duration<double, std::milli> taken = Clock::now() - start_;
    const std::string name = std::string(test.test_suite_name()) + "." + test.name();
    write(name.c_str(), processor_ms() - processor_, taken.count());
  }

 private:
  using Clock = std::chrono::steady_clock;

  void write(const char* name, double processor, double time) {
    std::fprintf(file_, "%s\t%.1f\t%.1f\t", name, processor, time);
    for (std::size_t number = 0; number < numbers; ++number) {
      if (kova_mutant_reached[number] != 0) std::fprintf(file_, "%zu ", number);
    }
    std::fputc('\n', file_);
    std::fflush(file_);
    std::memset(kova_mutant_reached, 0, numbers);
  }

  const char* path_;
  std::FILE* file_ = nullptr;
  double processor_ = 0;
  Clock::time_point start_;
};

const bool logging = [] {
  const char* const path = std::getenv("KOVA_MUTANT_LOG");
  if (path != nullptr && numbers != 0) {
    ::testing::UnitTest::GetInstance()->listeners().Append(new Log(path));
  }
  return path != nullptr;
}();

}  // namespace
