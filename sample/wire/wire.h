// The frames that the sample client library and the sample engine exchange. README.md beside this
// file describes them byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "failure.h"

namespace kova::wire {

inline constexpr std::uint32_t kMagic = 0x4B4F5641;  // "KOVA"
inline constexpr std::uint16_t kVersion = 1;

inline constexpr std::size_t kHeaderSize = 5;
/// The payload of a Hello.
inline constexpr std::size_t kHelloSize = 6;
inline constexpr std::size_t kStatementLimit = 65536;
/// The largest payload of a request: an Exec of the longest statement.
inline constexpr std::size_t kRequestLimit = 4 + 4 + kStatementLimit + 1;
/// The largest payload of a reply.
inline constexpr std::size_t kReplyLimit = std::size_t{4} << 20;
/// Statement objects that one connection may hold at a time.
inline constexpr std::size_t kObjectLimit = 64;

enum class Type : std::uint8_t {
  kHello = 1,
  kExec = 2,
  kFetch = 3,
  kRelease = 4,
  kWelcome = 129,
  kOutcome = 130,
  kRows = 131,
  kRefused = 132,
};

/// How a block of rows ends.
enum class RowsEnd : std::uint8_t { kMore = 0, kEnd = 1, kFailed = 2 };

struct Header {
  std::uint32_t size;
  Type type;
};

[[nodiscard]] Header decode_header(const char (&bytes)[kHeaderSize]);

/// A frame under construction. Nothing limits its size: the caller watches `payload_size`.
class FrameWriter {
 public:
  explicit FrameWriter(Type type);

  void u8(std::uint8_t value) { bytes_.push_back(static_cast<char>(value)); }
  void u16(std::uint16_t value);
  void u32(std::uint32_t value);
  void text(std::string_view value);
  /// The text of a null.
  void null_text();

  [[nodiscard]] std::size_t payload_size() const { return bytes_.size() - kHeaderSize; }
  /// Removes everything after the first `payload_size` bytes of the payload.
  void shrink(std::size_t payload_size) { bytes_.resize(kHeaderSize + payload_size); }
  /// Replaces a number that was written at `offset` of the payload.
  void set_u16(std::size_t offset, std::uint16_t value);

  /// Writes the payload's size into the header and returns the whole frame.
  [[nodiscard]] std::string_view finish();
  /// Overwrites what was written; for a frame that carries a password.
  void wipe();

 private:
  void put(std::size_t at, std::uint64_t value, std::size_t size);

  std::string bytes_;
};

/// Thrown for a payload that is too short or malformed.
class Malformed : public sample::Failure {
 public:
  Malformed() : Failure("the frame is malformed") {}
};

/// Reads a payload from front to back. Each read throws Malformed where its field is missing.
class PayloadReader {
 public:
  explicit PayloadReader(std::string_view payload) : rest_(payload) {}

  [[nodiscard]] std::uint8_t u8() { return static_cast<std::uint8_t>(number(1)); }
  [[nodiscard]] std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
  [[nodiscard]] std::uint32_t u32() { return number(4); }
  /// A text, not a null. Its data is NUL-terminated.
  [[nodiscard]] std::string_view text();
  /// A text, or null data for a null.
  [[nodiscard]] std::string_view nullable_text();
  /// Throws when bytes are left.
  void expect_end() const;

 private:
  [[nodiscard]] std::uint32_t number(std::size_t size);

  std::string_view rest_;
};

}  // namespace kova::wire
