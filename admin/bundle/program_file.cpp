#include "admin/bundle/program_file.h"

#include <cstddef>
#include <cstdint>
#include <optional>

#include "admin/common/refusal.h"

namespace kova::admin {

namespace {

constexpr std::size_t kPeOffsetPlace = 0x3C;
constexpr std::uint64_t kPeMachineX64 = 0x8664;
constexpr std::size_t kPeMachinePlace = 4;
constexpr std::size_t kPeFlagsPlace = 22;
constexpr std::uint64_t kPeLibraryFlag = 0x2000;

constexpr std::string_view kElf64LittleEndian{
    "\x7F"
    "ELF\x02\x01",
    6};
constexpr std::size_t kElfTypePlace = 16;
constexpr std::uint64_t kElfShared = 3;
constexpr std::uint64_t kElfExecutable = 2;
constexpr std::size_t kElfMachinePlace = 18;
constexpr std::uint64_t kElfMachineX64 = 62;
constexpr std::size_t kElfTablePlace = 32;
constexpr std::size_t kElfEntrySizePlace = 54;
constexpr std::size_t kElfEntriesPlace = 56;
constexpr std::uint64_t kElfLoaderEntry = 3;

/// The little-endian number of `size` bytes at a place; nothing beyond the end.
std::optional<std::uint64_t> header_number(std::string_view bytes, std::uint64_t place,
                                           std::size_t size) {
  if (place > bytes.size() || bytes.size() - place < size) return std::nullopt;
  std::uint64_t value = 0;
  for (std::size_t i = size; i > 0; --i) {
    value = value << 8 | static_cast<unsigned char>(bytes[static_cast<std::size_t>(place) + i - 1]);
  }
  return value;
}

std::optional<ProgramFile> read_pe(std::string_view bytes) {
  const auto header = header_number(bytes, kPeOffsetPlace, 4);
  if (!header || *header > bytes.size()) return std::nullopt;
  const std::string_view image = bytes.substr(static_cast<std::size_t>(*header));
  const auto flags = header_number(image, kPeFlagsPlace, 2);
  if (!flags || !image.starts_with(std::string_view("PE\0\0", 4)) ||
      header_number(image, kPeMachinePlace, 2) != kPeMachineX64) {
    return std::nullopt;
  }
  return ProgramFile{.system = System::kWindows, .is_library = (*flags & kPeLibraryFlag) != 0};
}

/// Whether a table of the file names the loader, which the system starts a program with.
bool names_loader(std::string_view bytes) {
  const auto table = header_number(bytes, kElfTablePlace, 8);
  const auto entry_size = header_number(bytes, kElfEntrySizePlace, 2);
  const auto entries = header_number(bytes, kElfEntriesPlace, 2);
  if (!table || *table > bytes.size() || !entry_size || !entries) return false;
  for (std::uint64_t i = 0; i < *entries; ++i) {
    if (header_number(bytes, *table + i * *entry_size, 4) == kElfLoaderEntry) return true;
  }
  return false;
}

std::optional<ProgramFile> read_elf(std::string_view bytes) {
  const std::uint64_t type = header_number(bytes, kElfTypePlace, 2).value_or(0);
  const bool is_code = type == kElfShared || type == kElfExecutable;
  if (!is_code || header_number(bytes, kElfMachinePlace, 2) != kElfMachineX64) return std::nullopt;
  return ProgramFile{.system = System::kLinux,
                     .is_library = type == kElfShared && !names_loader(bytes)};
}

}  // namespace

ProgramFile read_program_file(std::string_view bytes) {
  std::optional<ProgramFile> found;
  if (bytes.starts_with("MZ")) found = read_pe(bytes);
  if (bytes.starts_with(kElf64LittleEndian)) found = read_elf(bytes);
  if (!found) throw Refusal("it is neither a Windows nor a Linux file of machine code for x86-64");
  return *found;
}

}  // namespace kova::admin
