#include "platform/record_file.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "platform/thread.h"
#include "platform/win32/record_turn.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::read_file;
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
