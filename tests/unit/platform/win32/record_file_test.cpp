#include "platform/record_file.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "platform/clock.h"
#include "platform/thread.h"
#include "platform/win32/record_turn.h"
#include "support/shortest.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::read_file;
using testing::shortest_ms;
using testing::TemporaryDirectory;
using testing::write_file;

TEST(AppendRecordWindows, AnotherWriterDropsTheRecord) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  write_file(path, "");
  const HANDLE writer = CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(writer, INVALID_HANDLE_VALUE);
  append_record(path.c_str(), "dropped\r\n");
  CloseHandle(writer);
  EXPECT_EQ(read_file(path), "");
  append_record(path.c_str(), "kept\r\n");
  EXPECT_EQ(read_file(path), "kept\r\n");
}

// A process that is killed while it writes gives up its turn before the system closes its file.
class AppendRecordAfterAKilledWriter : public ::testing::Test {
 protected:
  AppendRecordAfterAKilledWriter() {
    write_file(path_, "");
    file_ = CreateFileA(path_.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL, nullptr);
    Thread taker;
    EXPECT_TRUE(taker.start(take_turn, this));
  }
  ~AppendRecordAfterAKilledWriter() override {
    if (file_ != nullptr) CloseHandle(file_);
  }

  // Ends with the turn taken.
  static void* take_turn(void* self) {
    auto& test = *static_cast<AppendRecordAfterAKilledWriter*>(self);
    const std::wstring path = std::filesystem::path(test.path_).wstring();
    test.turn_ = std::make_unique<RecordTurn>(path.c_str(), kRecordWaitMs);
    return nullptr;
  }
  static void* close_file(void* self) {
    sleep_thread(kClosingMs);
    CloseHandle(std::exchange(static_cast<AppendRecordAfterAKilledWriter*>(self)->file_, nullptr));
    return nullptr;
  }

  static constexpr std::uint32_t kClosingMs = 50;
  const TemporaryDirectory directory_;
  const std::string path_ = directory_.file("audit.jsonl");
  HANDLE file_ = nullptr;
  std::unique_ptr<RecordTurn> turn_;
};

TEST_F(AppendRecordAfterAKilledWriter, WaitsUntilItsFileIsClosed) {
  Thread closing;
  ASSERT_TRUE(closing.start(close_file, this));
  append_record(path_.c_str(), "kept\r\n");
  closing.join();
  EXPECT_EQ(read_file(path_), "kept\r\n");
}

TEST_F(AppendRecordAfterAKilledWriter, WaitsNoLongerThanForATurn) {
  append_record(path_.c_str(), "dropped\r\n", 10);
  EXPECT_EQ(read_file(path_), "");
}

/// Another thread that has the turn of a file until this object ends, or for a minute: a writer
/// that waits for longer than it may does not hang.
class LivingWriter {
 public:
  explicit LivingWriter(const std::string& path) : path_(std::filesystem::path(path).wstring()) {
    thread_ = std::thread([this] { hold(); });
    while (!has_turn_) yield_thread();
  }
  ~LivingWriter() {
    let_go_.set_value();
    thread_.join();
  }
  LivingWriter(const LivingWriter&) = delete;
  LivingWriter& operator=(const LivingWriter&) = delete;

  [[nodiscard]] bool has_turn() const { return has_turn_; }

 private:
  void hold() {
    const RecordTurn turn(path_.c_str(), kRecordWaitMs);
    has_turn_ = true;
    let_go_.get_future().wait_for(std::chrono::minutes(1));
    has_turn_ = false;
  }

  std::wstring path_;
  std::promise<void> let_go_;
  std::atomic<bool> has_turn_{false};
  std::thread thread_;
};

// The system's clock moves in steps of up to 16 ms.
constexpr std::uint64_t kStepMs = 16;

TEST(AppendRecordWindows, AWriterThatKeepsItsTurnDelaysTheRecordAndLosesNothing) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  const LivingWriter other(path);
  const std::uint64_t start = tick_ms();
  append_record(path.c_str(), "kept\r\n", 60);
  EXPECT_GE(tick_ms() - start + kStepMs, 60U);
  EXPECT_EQ(read_file(path), "kept\r\n");
  EXPECT_TRUE(other.has_turn());
}

TEST(AppendRecordWindows, WithoutATurnTheFileIsTriedOnce) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  write_file(path, "");
  const LivingWriter other(path);
  const HANDLE writer = CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(writer, INVALID_HANDLE_VALUE);
  append_record(path.c_str(), "dropped\r\n", 10);
  CloseHandle(writer);
  EXPECT_EQ(read_file(path), "");
  EXPECT_TRUE(other.has_turn());
}

TEST(AppendRecordWindows, TheWaitForATurnIsNoLongerThanItMayBe) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  const LivingWriter other(path);
  EXPECT_LT(shortest_ms(1000, [&] { append_record(path.c_str(), "x\r\n", 10); }), 1000U);
  EXPECT_TRUE(other.has_turn());
}

TEST(AppendRecordWindows, AReaderThatSharesCostsNoRecord) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("audit.jsonl");
  write_file(path, "first\r\n");
  const HANDLE reader = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(reader, INVALID_HANDLE_VALUE);
  append_record(path.c_str(), "second\r\n");
  CloseHandle(reader);
  EXPECT_EQ(read_file(path), "first\r\nsecond\r\n");
}

// Its sharing would let it in; it is refused nevertheless.
TEST(AppendRecordWindows, StandardOutputIsNeverWrittenTo) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("output");
  const HANDLE output = CreateFileA(path.c_str(), FILE_READ_ATTRIBUTES,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(output, INVALID_HANDLE_VALUE);
  const HANDLE before = GetStdHandle(STD_OUTPUT_HANDLE);
  ASSERT_TRUE(SetStdHandle(STD_OUTPUT_HANDLE, output));
  append_record(path.c_str(), "x\r\n");
  const bool found = is_standard_output(path.c_str());
  SetStdHandle(STD_OUTPUT_HANDLE, before);
  CloseHandle(output);
  EXPECT_TRUE(found);
  EXPECT_FALSE(is_standard_output(path.c_str()));
  EXPECT_EQ(read_file(path), "");
}

}  // namespace
}  // namespace kova
