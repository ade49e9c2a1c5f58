#include "platform/record_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>

#include "platform/clock.h"
#include "platform/console.h"
#include "support/flush_watch.h"
#include "support/posix/file_mode.h"
#include "support/posix/system_call_failure.h"
#include "support/shortest.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::FlushWatch;
using testing::mode_of;
using testing::read_file;
using testing::shortest_ms;
using testing::SystemCall;
using testing::SystemCallFailure;
using testing::TemporaryDirectory;
using testing::write_file;

constexpr std::uint32_t kPatienceMs = 600000;

/// A file that is open elsewhere; closing it releases its lock.
struct Descriptor {
  explicit Descriptor(const std::string& path)
      : number(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600)) {}
  ~Descriptor() { close(number); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number;
};

int open_descriptors_of(const std::string& path) {
  int found = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    found += std::filesystem::read_symlink(entry.path(), error) == path ? 1 : 0;
  }
  return found;
}

TEST(AppendRecordPosix, ANewFileIsItsOwnersAlone) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  const mode_t before = umask(0);
  append_record(path.c_str(), "x\r\n");
  umask(before);
  EXPECT_EQ(mode_of(path), 0600U);
  EXPECT_EQ(read_file(path), "x\r\n");
}

TEST(AppendRecordPosix, TheModeOfAnExistingFileStays) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  write_file(path, "");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  append_record(path.c_str(), "x\r\n");
  EXPECT_EQ(mode_of(path), 0640U);
}

// A shared lock, too.
TEST(AppendRecordPosix, AForeignLockDelaysTheRecordAndLosesNothing) {
  for (const int kind : {LOCK_EX, LOCK_SH}) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("audit.jsonl");
    const Descriptor holder(path);
    ASSERT_EQ(flock(holder.number, kind | LOCK_NB), 0);
    const std::uint64_t start = tick_ms();
    append_record(path.c_str(), "kept\r\n", 30);
    EXPECT_GE(tick_ms() - start, 30U);
    EXPECT_EQ(read_file(path), "kept\r\n");
  }
}

TEST(AppendRecordPosix, TheWaitForALockIsNoLongerThanItMayBe) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  const Descriptor holder(path);
  ASSERT_EQ(flock(holder.number, LOCK_EX | LOCK_NB), 0);
  EXPECT_LT(shortest_ms(1000, [&] { append_record(path.c_str(), "x\r\n", 10); }), 1000U);
}

TEST(AppendRecordPosix, ALockThatIsReleasedEndsTheWait) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  std::thread writer;
  {
    const Descriptor holder(path);
    ASSERT_EQ(flock(holder.number, LOCK_EX | LOCK_NB), 0);
    writer = std::thread([&path] { append_record(path.c_str(), "kept\r\n", kPatienceMs); });
  }
  writer.join();
  EXPECT_EQ(read_file(path), "kept\r\n");
}

// As file servers hold one for their clients: the system refuses every open that would write.
class AppendRecordUnderALease : public ::testing::Test {
 protected:
  AppendRecordUnderALease() {
    write_file(path_, "");
    lease_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    before_ = signal(SIGIO, SIG_IGN);  // which asks for the lease
    EXPECT_EQ(fcntl(lease_, F_SETLEASE, F_RDLCK), 0);
  }
  ~AppendRecordUnderALease() override {
    close(lease_);
    signal(SIGIO, before_);
  }

  const TemporaryDirectory directory_;
  const std::string path_ = directory_.file("audit.jsonl");
  int lease_ = -1;
  sighandler_t before_ = SIG_DFL;
};

TEST_F(AppendRecordUnderALease, ThatIsGivenUpLosesNothing) {
  std::thread writer([this] { append_record(path_.c_str(), "kept\r\n", kPatienceMs); });
  while (fcntl(lease_, F_GETLEASE) == F_RDLCK) std::this_thread::yield();
  EXPECT_EQ(fcntl(lease_, F_SETLEASE, F_UNLCK), 0);
  writer.join();
  EXPECT_EQ(read_file(path_), "kept\r\n");
}

TEST_F(AppendRecordUnderALease, ThatIsKeptDelaysTheCall) {
  const std::uint64_t start = tick_ms();
  append_record(path_.c_str(), "dropped\r\n", 30);
  EXPECT_GE(tick_ms() - start, 30U);
  EXPECT_EQ(read_file(path_), "");
}

// The file may be taken away while its lock is waited for.
TEST(AppendRecordPosix, TheRecordGoesIntoTheFileThatHasThePathNow) {
  for (const bool removed : {false, true}) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("audit.jsonl");
    const std::string renamed = directory.file("audit.1");
    std::thread writer;
    {
      const Descriptor holder(path);
      ASSERT_EQ(flock(holder.number, LOCK_EX | LOCK_NB), 0);
      writer = std::thread([&path] { append_record(path.c_str(), "kept\r\n", kPatienceMs); });
      while (open_descriptors_of(path) < 2) std::this_thread::yield();
      ASSERT_EQ(removed ? unlink(path.c_str()) : rename(path.c_str(), renamed.c_str()), 0);
    }
    writer.join();
    EXPECT_EQ(read_file(path), "kept\r\n");
    EXPECT_EQ(read_file(renamed), "");
  }
}

TEST(AppendRecordPosix, WithoutAFileAtThePathTheRenamedOneTakesTheRecord) {
  const TemporaryDirectory directory;
  const std::string folder = directory.file("folder");
  const std::string path = folder + "/audit.jsonl";
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  std::thread writer;
  {
    const Descriptor holder(path);
    ASSERT_EQ(flock(holder.number, LOCK_EX | LOCK_NB), 0);
    writer = std::thread([&path] { append_record(path.c_str(), "kept\r\n", kPatienceMs); });
    while (open_descriptors_of(path) < 2) std::this_thread::yield();
    ASSERT_EQ(rename(folder.c_str(), directory.file("moved").c_str()), 0);
  }
  writer.join();
  EXPECT_EQ(read_file(directory.file("moved/audit.jsonl")), "kept\r\n");
}

TEST(AppendRecordPosix, AFileSystemWithoutLocksCostsNoRecord) {
  for (const int error : {ENOLCK, EOPNOTSUPP, ENOSYS, EINVAL}) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("audit.jsonl");
    const SystemCallFailure failure(SystemCall::kFlock, error);
    append_record(path.c_str(), "kept\r\n", kPatienceMs);
    EXPECT_EQ(read_file(path), "kept\r\n") << error;
    EXPECT_GE(SystemCallFailure::failed(), 1);
  }
}

TEST(AppendRecordPosix, AnInterruptedLockIsRetried) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  const SystemCallFailure failure(SystemCall::kFlock, EINTR, 1, 3);
  append_record(path.c_str(), "kept\r\n", kPatienceMs);
  EXPECT_EQ(read_file(path), "kept\r\n");
  EXPECT_EQ(SystemCallFailure::failed(), 3);
}

// Whoever waits for the disk does not hold the lock.
TEST(AppendRecordPosix, TheLockIsFreeAgainBeforeTheFlush) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  const Descriptor other(path);
  const FlushWatch watch([&other] { return flock(other.number, LOCK_EX | LOCK_NB) == 0; });
  append_record(path.c_str(), "kept\r\n", kPatienceMs);
  EXPECT_EQ(FlushWatch::calls(), 1);
  EXPECT_TRUE(FlushWatch::result());
}

/// A limit of the size of files, within which the disk takes a record in part.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t size) {
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{size, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before_); }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit before_{};
};

TEST(AppendRecordPosix, ARecordThatTheDiskTakesInPartIsTakenBack) {
  prepare_standard_streams();
  const std::string first(100, 'a');
  const std::string second(50, 'b');
  for (rlim_t limit = 100; limit <= 150; ++limit) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("audit.jsonl");
    append_record(path.c_str(), first);
    {
      const FileSizeLimit size(limit);
      append_record(path.c_str(), second);
    }
    ASSERT_EQ(read_file(path), limit < 150 ? first : first + second) << limit;
    append_record(path.c_str(), "after\r\n");
    ASSERT_TRUE(read_file(path).ends_with(limit < 150 ? "aafter\r\n" : "bafter\r\n")) << limit;
  }
}

TEST(AppendRecordPosix, AFullDiskIsSilent) {
  append_record("/dev/full", "lost\r\n");
}

/// Puts a descriptor in the place of standard output.
class StandardOutput {
 public:
  explicit StandardOutput(int descriptor) : before_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
    dup2(descriptor, STDOUT_FILENO);
  }
  ~StandardOutput() {
    dup2(before_, STDOUT_FILENO);
    close(before_);
  }
  StandardOutput(const StandardOutput&) = delete;
  StandardOutput& operator=(const StandardOutput&) = delete;

 private:
  int before_;
};

TEST(AppendRecordPosix, StandardOutputIsNeverWrittenTo) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("output");
  ASSERT_EQ(symlink(path.c_str(), directory.file("link").c_str()), 0);
  const Descriptor file(path);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  for (const int output : {file.number, ends[1]}) {
    const StandardOutput replaced(output);
    for (const std::string& name : {std::string("/dev/stdout"), std::string("/proc/self/fd/1"),
                                    "/proc/self/fd/" + std::to_string(output)}) {
      EXPECT_TRUE(is_standard_output(name.c_str())) << name;
      append_record(name.c_str(), "x\r\n");
    }
  }
  {
    const StandardOutput replaced(file.number);
    for (const std::string& name : {path, directory.file("link")}) {
      EXPECT_TRUE(is_standard_output(name.c_str())) << name;
      append_record(name.c_str(), "x\r\n");
    }
  }
  char byte = 0;
  EXPECT_EQ(read(ends[0], &byte, 1), -1);
  EXPECT_EQ(read_file(path), "");
  EXPECT_FALSE(is_standard_output(path.c_str()));
  close(ends[0]);
  close(ends[1]);
}

// Opening a pipe with no one at its other end would wait for good.
TEST(AppendRecordPosix, ANamedPipeThatNobodyReadsIsNotWaitedFor) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("pipe");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  append_record(path.c_str(), "x\r\n");
}

TEST(AppendRecordPosix, AReaderCostsNoRecord) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  write_file(path, "first\r\n");
  const int reader = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  append_record(path.c_str(), "second\r\n");
  EXPECT_EQ(read_file(path), "first\r\nsecond\r\n");
  close(reader);
}

TEST(AppendRecordPosix, NoDescriptorStaysOpen) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  const int before = dup(0);
  close(before);
  for (int i = 0; i < 5; ++i) append_record(path.c_str(), "x\r\n");
  append_record(directory.path().c_str(), "x\r\n");
  append_record("/dev/stdout", "x\r\n");
  const int after = dup(0);
  close(after);
  EXPECT_EQ(before, after);
}

// What a rotation takes away is in the renamed file, what comes later in the new one.
TEST(AppendRecordPosix, NothingIsLostWhileTheFileIsRenamedAgainAndAgain) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  constexpr std::size_t kWriters = 4;
  constexpr std::size_t kRecords = 50;
  std::atomic<std::size_t> running{kWriters};
  std::array<std::thread, kWriters> writers;
  for (std::size_t i = 0; i < kWriters; ++i) {
    writers[i] = std::thread([&path, &running, i] {
      for (std::size_t record = 0; record < kRecords; ++record) {
        const std::string text = std::to_string(i) + ":" + std::to_string(record) + "\r\n";
        append_record(path.c_str(), text, kPatienceMs);
      }
      --running;
    });
  }
  std::size_t names = 0;
  std::error_code error;
  while (running > 0) {
    std::filesystem::rename(path, path + "." + std::to_string(names), error);
    if (!error) ++names;
    std::this_thread::yield();
  }
  for (std::thread& writer : writers) writer.join();
  std::string text = read_file(path);
  for (std::size_t i = 0; i < names; ++i) text += read_file(path + "." + std::to_string(i));
  std::size_t lines = 0;
  for (std::size_t i = 0; i < kWriters; ++i) {
    for (std::size_t record = 0; record < kRecords; ++record) {
      const std::string line = std::to_string(i) + ":" + std::to_string(record) + "\r\n";
      const std::size_t at = text.find(line);
      if (at != std::string::npos && (at == 0 || text[at - 1] == '\n')) ++lines;
    }
  }
  EXPECT_EQ(lines, kWriters * kRecords);
  EXPECT_GT(names, 0U);
}

}  // namespace
}  // namespace kova
