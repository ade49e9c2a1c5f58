#include "platform/win32/record_turn.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>

#include "platform/record_file.h"
#include "support/temporary_directory.h"
#include "support/win32/mutex_failure.h"

namespace kova {
namespace {

using testing::MutexFailure;
using testing::read_file;
using testing::TemporaryDirectory;

/// The turn of a path, taken at once by a thread that ends without giving it back: whoever takes it
/// next finds it abandoned. Without a free turn it takes none.
class AbandonedTurn {
 public:
  explicit AbandonedTurn(const std::wstring& path) {
    std::thread([&] { turn_ = std::make_unique<RecordTurn>(path.c_str(), 0); }).join();
  }

 private:
  std::unique_ptr<RecordTurn> turn_;
};

bool finds_it_abandoned(const std::wstring& path) {
  return RecordTurn(path.c_str(), 0).was_abandoned();
}

bool share_a_turn(const std::wstring& one, const std::wstring& other) {
  const AbandonedTurn left(one);
  return finds_it_abandoned(other);
}

std::wstring upper_case(std::wstring text) {
  CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
  return text;
}

std::wstring short_name(const std::wstring& path) {
  wchar_t name[MAX_PATH] = {};
  EXPECT_NE(GetShortPathNameW(path.c_str(), name, MAX_PATH), 0U);
  return name;
}

class RecordTurnTest : public ::testing::Test {
 protected:
  RecordTurnTest() { std::filesystem::create_directory(folder_); }

  const TemporaryDirectory directory_;
  const std::wstring folder_ =
      std::filesystem::path(directory_.path() + "\\A Folder with a Long Name").wstring();
  const std::wstring path_ = folder_ + L"\\Audit \u00e9.jsonl";
};

// Whether the file is there or not.
TEST_F(RecordTurnTest, EverySpellingOfAPathHasOneTurn) {
  const std::wstring name = path_.substr(folder_.size());
  std::wstring slashes = path_;
  for (wchar_t& unit : slashes) unit = unit == L'\\' ? L'/' : unit;
  const std::wstring spellings[] = {
      path_,
      upper_case(path_),
      folder_ + upper_case(name),
      upper_case(folder_) + name,
      folder_ + L"\\." + name,
      folder_ + L"\\..\\A Folder with a Long Name" + name,
      folder_ + L"\\no such folder\\.." + name,
      folder_ + L"\\" + name,
      slashes,
      LR"(\\?\)" + path_,
      short_name(folder_) + name,
  };
  for (const bool there : {false, true}) {
    if (there) std::ofstream(std::filesystem::path(path_)).put('x');
    ASSERT_EQ(std::filesystem::exists(path_), there);
    for (std::size_t i = 0; i < std::size(spellings); ++i) {
      EXPECT_TRUE(share_a_turn(path_, spellings[i])) << i;
      EXPECT_TRUE(share_a_turn(spellings[i], path_)) << i;
    }
  }
}

TEST_F(RecordTurnTest, EveryFileHasItsOwn) {
  const std::wstring base = std::filesystem::path(directory_.path()).wstring();
  const std::wstring others[] = {
      path_ + L"2",         path_.substr(0, path_.size() - 1), folder_ + L"\\Audit e.jsonl",
      folder_ + L"\\jsonl", base + L"\\Audit \u00e9.jsonl",
  };
  for (std::size_t i = 0; i < std::size(others); ++i) {
    EXPECT_FALSE(share_a_turn(path_, others[i])) << i;
  }
}

// Not only when its thread ends, which gives up what it still has.
TEST_F(RecordTurnTest, EndsWithItsObject) {
  // Keeps the mutex, which would go away with its last handle.
  const AbandonedTurn first(path_);
  ASSERT_TRUE(finds_it_abandoned(path_));
  const AbandonedTurn next(path_);
  EXPECT_TRUE(finds_it_abandoned(path_));
  EXPECT_FALSE(finds_it_abandoned(path_));
}

TEST_F(RecordTurnTest, IsOfTheWholeMachine) {
  const MutexFailure nothing_else(L"Local\\");
  EXPECT_TRUE(share_a_turn(path_, path_));
  EXPECT_EQ(MutexFailure::refused(), 0);
}

// As a process has it that may not make objects for the whole machine.
TEST_F(RecordTurnTest, IsOfTheSessionWhereTheMachinesIsRefused) {
  const AbandonedTurn of_the_machine(path_);
  {
    const MutexFailure refused(L"Global\\");
    EXPECT_FALSE(finds_it_abandoned(path_));
    EXPECT_TRUE(share_a_turn(path_, upper_case(path_)));
    EXPECT_GT(MutexFailure::refused(), 0);
  }
  EXPECT_TRUE(finds_it_abandoned(path_));
}

TEST_F(RecordTurnTest, WithoutAnyTheRecordIsWritten) {
  const std::string path = directory_.file("audit.jsonl");
  const MutexFailure refused(L"");
  append_record(path.c_str(), "kept\r\n");
  EXPECT_EQ(read_file(path), "kept\r\n");
  EXPECT_GT(MutexFailure::refused(), 0);
}

}  // namespace
}  // namespace kova
