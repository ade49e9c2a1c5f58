#include "admin/bundle/program_file.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "admin/common/refusal.h"
#include "support/guard_page.h"

namespace kova::admin {
namespace {

std::string with(std::string bytes, std::size_t place, std::string_view part) {
  return std::move(bytes.replace(place, part.size(), part));
}

/// The smallest headers that are read.
std::string pe() {
  std::string bytes = with(std::string(0x40 + 24, '\0'), 0, "MZ");
  bytes = with(bytes, 0x3C, std::string_view("\x40\0\0\0", 4));
  return with(bytes, 0x40, std::string_view("PE\0\0\x64\x86", 6));
}

std::string pe_library() {
  return with(pe(), 0x40 + 22, std::string_view("\x22\x20", 2));
}

std::string elf(char type, char first_entry) {
  std::string bytes = with(std::string(64 + 2 * 56, '\0'), 0,
                           "\x7F"
                           "ELF\x02\x01");
  bytes[16] = type;
  bytes[18] = 62;
  bytes[32] = 64;
  bytes[54] = 56;
  bytes[56] = 2;
  bytes[64] = 1;
  bytes[64 + 56] = first_entry;
  return bytes;
}

ProgramFile read(std::string_view bytes) {
  const kova::testing::GuardedText copy(bytes);
  return read_program_file(copy.view());
}

TEST(ReadProgramFile, SystemAndKind) {
  const struct {
    std::string bytes;
    System system;
    bool is_library;
  } kRows[] = {
      {pe(), System::kWindows, false},    {pe_library(), System::kWindows, true},
      {elf(3, 3), System::kLinux, false}, {elf(3, 2), System::kLinux, true},
      {elf(2, 2), System::kLinux, false},
  };
  for (const auto& row : kRows) {
    const ProgramFile found = read(row.bytes);
    EXPECT_EQ(found.system, row.system);
    EXPECT_EQ(found.is_library, row.is_library);
  }
}

TEST(ReadProgramFile, EverythingElseIsRefused) {
  const std::string kRows[] = {
      "",
      "MZ",
      "#!/bin/sh\n",
      with(pe(), 0x44, std::string_view("\x4C\x01", 2)),          // of another processor
      with(pe(), 0x40, "NE"),                                     // of an older format
      with(pe(), 0x3C, std::string_view("\x41\0\0\0", 4)),        // a header cut short
      with(pe(), 0x3C, std::string_view("\xFF\xFF\xFF\xFF", 4)),  // far outside
      with(elf(3, 3), 4, "\x01"),                                 // of 32 bits
      with(elf(3, 3), 5, "\x02"),                                 // big-endian
      with(elf(3, 3), 18, "\xB7"),                                // of another processor
      elf(1, 3),                                                  // an object file
      elf(3, 3).substr(0, 19),
  };
  for (const std::string& row : kRows) {
    EXPECT_THROW(static_cast<void>(read(row)), Refusal) << ::testing::PrintToString(row);
  }
}

TEST(ReadProgramFile, ReadsNothingBeyondTheEnd) {
  const std::string far(8, '\xFF');
  for (const std::string& whole : {pe_library(), elf(3, 3), with(elf(3, 3), 32, far),
                                   with(elf(3, 2), 54, "\xFF\xFF\xFF\xFF")}) {
    for (std::size_t size = 0; size <= whole.size(); ++size) {
      try {
        static_cast<void>(read(std::string_view(whole).substr(0, size)));
      } catch (const Refusal&) {
        EXPECT_LT(size, whole.size());
      }
    }
  }
}

}  // namespace
}  // namespace kova::admin
