#include "admin/bundle/zip_archive.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kova::admin {
namespace {

constexpr std::size_t kEndSize = 22;
constexpr std::size_t kLocalSize = 30;
constexpr std::size_t kLineSize = 46;

std::uint32_t number(std::string_view bytes, std::size_t place, std::size_t size) {
  std::uint32_t value = 0;
  for (std::size_t i = size; i > 0; --i) {
    value = value << 8 | static_cast<unsigned char>(bytes.at(place + i - 1));
  }
  return value;
}

struct Unpacked {
  std::string name;
  std::string bytes;
  std::uint32_t mode;

  bool operator==(const Unpacked&) const = default;
};

std::string inflated(std::string_view packed, std::size_t size) {
  z_stream stream{};
  EXPECT_EQ(::inflateInit2(&stream, -15), Z_OK);
  // One byte more, to see that there are not more.
  std::string out(size + 1, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(::inflate(&stream, Z_FINISH), Z_STREAM_END);
  EXPECT_EQ(stream.avail_in, 0U);
  out.resize(stream.total_out);
  ::inflateEnd(&stream);
  return out;
}

/// Reads an archive from its directory, and compares each line of it with the header before the
/// file's bytes.
std::vector<Unpacked> unpacked(std::string_view archive) {
  const std::size_t end = archive.size() - kEndSize;
  EXPECT_EQ(number(archive, end, 4), 0x06054B50U);
  const std::uint32_t entries = number(archive, end + 8, 2);
  EXPECT_EQ(number(archive, end + 10, 2), entries);
  std::size_t line = number(archive, end + 16, 4);
  EXPECT_EQ(line + number(archive, end + 12, 4), end);
  std::vector<Unpacked> found;
  for (std::uint32_t i = 0; i < entries; ++i) {
    EXPECT_EQ(number(archive, line, 4), 0x02014B50U);
    const std::size_t local = number(archive, line + 42, 4);
    EXPECT_EQ(number(archive, local, 4), 0x04034B50U);
    EXPECT_EQ(archive.substr(local + 4, 26), archive.substr(line + 6, 26));
    const std::size_t name_size = number(archive, line + 28, 2);
    const std::string_view name = archive.substr(line + kLineSize, name_size);
    EXPECT_EQ(archive.substr(local + kLocalSize, name_size), name);
    EXPECT_EQ(number(archive, line + 10, 2), 8U);
    EXPECT_EQ(number(archive, line + 12, 4), 0x00210000U) << "the date";
    const std::string bytes =
        inflated(archive.substr(local + kLocalSize + name_size, number(archive, line + 20, 4)),
                 number(archive, line + 24, 4));
    EXPECT_EQ(bytes.size(), number(archive, line + 24, 4));
    EXPECT_EQ(::crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()),
              number(archive, line + 16, 4));
    found.push_back(
        {.name = std::string(name), .bytes = bytes, .mode = number(archive, line + 38, 4) >> 16});
    line += kLineSize + name_size;
  }
  EXPECT_EQ(line, end);
  return found;
}

TEST(ZipArchive, HoldsWhatWasPutIn) {
  std::string incompressible;
  for (std::uint32_t i = 0, state = 1; i < 100000; ++i) {
    state = state * 1664525 + 1013904223;
    incompressible += static_cast<char>(state >> 24);
  }
  const std::string zeros(100000, '\0');
  const std::vector<ZipEntry> entries = {
      {.name = "manifest.json", .bytes = "{}"},
      {.name = "server/kova-mcp", .bytes = incompressible, .executable = true},
      {.name = "zeros", .bytes = zeros},
      {.name = "empty", .bytes = {}}};
  const std::string archive = zip_archive(entries);
  EXPECT_EQ(unpacked(archive), (std::vector<Unpacked>{
                                   {"manifest.json", "{}", 0100644},
                                   {"server/kova-mcp", incompressible, 0100755},
                                   {"zeros", zeros, 0100644},
                                   {"empty", "", 0100644},
                               }));
  EXPECT_LT(archive.size(), incompressible.size() + 1000);
  EXPECT_EQ(zip_archive(entries), archive);
}

TEST(ZipArchive, OfNothingIsItsEndAlone) {
  const std::string archive = zip_archive({});
  EXPECT_EQ(archive, std::string("PK\x05\x06") + std::string(18, '\0'));
}

}  // namespace
}  // namespace kova::admin
