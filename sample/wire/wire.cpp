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

std::uint32_t PayloadReader::number(std::size_t size) {
  if (rest_.size() < size) throw Malformed();
  const std::uint32_t value = big_endian(rest_.data(), size);
  rest_.remove_prefix(size);
  return value;
}

std::string_view PayloadReader::nullable_text() {
  const std::uint32_t size = u32();
  if (size == kNullLength) return {};
  if (rest_.size() <= size || rest_[size] != '\0') throw Malformed();
  const std::string_view value = rest_.substr(0, size);
  rest_.remove_prefix(std::size_t{size} + 1);
  return value;
}

std::string_view PayloadReader::text() {
  const std::string_view value = nullable_text();
  if (value.data() == nullptr) throw Malformed();
  return value;
}

void PayloadReader::expect_end() const {
  if (!rest_.empty()) throw Malformed();
}

}  // namespace kova::wire
