#include "wire/wire.h"

#include "base/secret.h"

namespace kova::wire {

namespace {

constexpr std::uint32_t kNullLength = 0xFFFFFFFF;

std::uint32_t big_endian(const char* bytes, std::size_t size) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < size; ++i) {
    value = (value << 8) | static_cast<unsigned char>(bytes[i]);
  }
  return value;
}

}  // namespace

Header decode_header(const char (&bytes)[kHeaderSize]) {
  return {big_endian(bytes, 4), static_cast<Type>(static_cast<unsigned char>(bytes[4]))};
}

FrameWriter::FrameWriter(Type type) : bytes_(kHeaderSize, '\0') {
  bytes_[4] = static_cast<char>(type);
}

void FrameWriter::put(std::size_t at, std::uint64_t value, std::size_t size) {
  for (std::size_t i = size; i-- > 0; value >>= 8) bytes_[at + i] = static_cast<char>(value & 0xFF);
}

void FrameWriter::u16(std::uint16_t value) {
  const std::size_t at = bytes_.size();
  bytes_.resize(at + 2);
  put(at, value, 2);
}

void FrameWriter::u32(std::uint32_t value) {
  const std::size_t at = bytes_.size();
  bytes_.resize(at + 4);
  put(at, value, 4);
}

void FrameWriter::text(std::string_view value) {
  u32(static_cast<std::uint32_t>(value.size()));
  bytes_.append(value);
  bytes_.push_back('\0');
}

void FrameWriter::null_text() {
  u32(kNullLength);
}

void FrameWriter::set_u16(std::size_t offset, std::uint16_t value) {
  put(kHeaderSize + offset, value, 2);
}

std::string_view FrameWriter::finish() {
  put(0, payload_size(), 4);
  return bytes_;
}

void FrameWriter::wipe() {
  kova::wipe(bytes_.data(), bytes_.size());
}

bool PayloadReader::number(std::size_t size, std::uint32_t& value) {
  if (rest_.size() < size) return false;
  value = big_endian(rest_.data(), size);
  rest_.remove_prefix(size);
  return true;
}

bool PayloadReader::u8(std::uint8_t& value) {
  std::uint32_t wide = 0;
  if (!number(1, wide)) return false;
  value = static_cast<std::uint8_t>(wide);
  return true;
}

bool PayloadReader::u16(std::uint16_t& value) {
  std::uint32_t wide = 0;
  if (!number(2, wide)) return false;
  value = static_cast<std::uint16_t>(wide);
  return true;
}

bool PayloadReader::u32(std::uint32_t& value) {
  return number(4, value);
}

bool PayloadReader::nullable_text(std::string_view& value) {
  std::uint32_t size = 0;
  if (!u32(size)) return false;
  value = {};
  if (size == kNullLength) return true;
  if (rest_.size() <= size || rest_[size] != '\0') return false;
  value = rest_.substr(0, size);
  rest_.remove_prefix(std::size_t{size} + 1);
  return true;
}

bool PayloadReader::text(std::string_view& value) {
  return nullable_text(value) && value.data() != nullptr;
}

}  // namespace kova::wire
