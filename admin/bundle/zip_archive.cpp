#include "admin/bundle/zip_archive.h"

#include <zlib.h>

#include <cstdint>

#include "admin/common/refusal.h"

namespace kova::admin {

namespace {

constexpr std::uint32_t kLocalSignature = 0x04034b50;
constexpr std::uint32_t kCentralSignature = 0x02014b50;
constexpr std::uint32_t kEndSignature = 0x06054b50;
constexpr std::uint16_t kVersionNeeded = 20;
/// Made on Unix, so that the upper half of the attributes is a mode.
constexpr std::uint16_t kMadeBy = 3 << 8 | kVersionNeeded;
constexpr std::uint16_t kDeflated = 8;
constexpr std::uint16_t kMidnight = 0;
constexpr std::uint16_t kFirstDate = 1 << 5 | 1;  ///< 1980-01-01
constexpr std::uint32_t kExecutableMode = 0100755;
constexpr std::uint32_t kDataMode = 0100644;

constexpr int kRawWindow = -15;  ///< without a header of zlib's own
constexpr int kMemoryLevel = 8;

void add16(std::string& out, std::uint16_t value) {
  out += static_cast<char>(value & 0xFF);
  out += static_cast<char>(value >> 8);
}

void add32(std::string& out, std::uint32_t value) {
  add16(out, static_cast<std::uint16_t>(value & 0xFFFF));
  add16(out, static_cast<std::uint16_t>(value >> 16));
}

std::string deflated(std::string_view bytes) {
  z_stream stream{};
  if (::deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, kRawWindow, kMemoryLevel,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
    throw Refusal("there is no memory to compress with");
  }
  std::string out(::deflateBound(&stream, static_cast<uLong>(bytes.size())), '\0');
  // The library takes its input without const and does not change it.
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream.avail_in = static_cast<uInt>(bytes.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int result = ::deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  ::deflateEnd(&stream);
  if (result != Z_STREAM_END) throw Refusal("the bundle cannot be compressed");
  return out;
}

/// What the header before an entry's bytes and its line in the directory have in common.
std::string shared_fields(const ZipEntry& entry, std::size_t packed_size) {
  const auto* const bytes = reinterpret_cast<const Bytef*>(entry.bytes.data());
  std::string out;
  add16(out, kVersionNeeded);
  add16(out, 0);  // flags
  add16(out, kDeflated);
  add16(out, kMidnight);
  add16(out, kFirstDate);
  add32(out,
        static_cast<std::uint32_t>(::crc32_z(::crc32_z(0, nullptr, 0), bytes, entry.bytes.size())));
  add32(out, static_cast<std::uint32_t>(packed_size));
  add32(out, static_cast<std::uint32_t>(entry.bytes.size()));
  add16(out, static_cast<std::uint16_t>(entry.name.size()));
  add16(out, 0);  // extra field
  return out;
}

void add_directory_line(std::string& out, const ZipEntry& entry, std::string_view shared,
                        std::size_t offset) {
  add32(out, kCentralSignature);
  add16(out, kMadeBy);
  out += shared;
  add16(out, 0);  // comment
  add16(out, 0);  // number of the disk
  add16(out, 0);  // internal attributes
  add32(out, (entry.executable ? kExecutableMode : kDataMode) << 16);
  add32(out, static_cast<std::uint32_t>(offset));
  out += entry.name;
}

void add_end(std::string& out, std::size_t entries, std::size_t directory_size,
             std::size_t directory_offset) {
  add32(out, kEndSignature);
  add16(out, 0);  // number of this disk
  add16(out, 0);  // disk of the directory
  add16(out, static_cast<std::uint16_t>(entries));
  add16(out, static_cast<std::uint16_t>(entries));
  add32(out, static_cast<std::uint32_t>(directory_size));
  add32(out, static_cast<std::uint32_t>(directory_offset));
  add16(out, 0);  // comment
}

}  // namespace

std::string zip_archive(std::span<const ZipEntry> entries) {
  std::string out;
  std::string directory;
  for (const ZipEntry& entry : entries) {
    const std::string packed = deflated(entry.bytes);
    const std::string shared = shared_fields(entry, packed.size());
    add_directory_line(directory, entry, shared, out.size());
    add32(out, kLocalSignature);
    out += shared;
    out += entry.name;
    out += packed;
  }
  const std::size_t directory_offset = out.size();
  out += directory;
  add_end(out, entries.size(), directory.size(), directory_offset);
  return out;
}

}  // namespace kova::admin
