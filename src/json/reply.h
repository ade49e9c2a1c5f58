// Reply lines on standard output and their plain envelopes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/text.h"
#include "json/json.h"

namespace kova {

// JSON-RPC 2.0 error codes.
inline constexpr int kParseError = -32700;
inline constexpr int kInvalidRequest = -32600;
inline constexpr int kMethodNotFound = -32601;
inline constexpr int kInvalidParams = -32602;
inline constexpr int kInternalError = -32603;
inline constexpr int kNotInitialized = -32002;
inline constexpr int kBusy = -32000;

/// The room for an id's decoded text, with its terminator.
inline constexpr std::size_t kIdCapacity = 96;

inline constexpr char kServerMemoryLimit[] = "server memory limit";

/// The id of the request that a reply belongs to: a token of the request's document, or the id's
/// source text where the document is gone, or none.
struct RequestId {
  const JsonDoc* doc = nullptr;
  int token = -1;
  std::string_view raw = {};
};

/// The room for an error's message, with its terminator.
inline constexpr std::size_t kErrorMessageCapacity = 128;

/// The error that a request is refused with (JSON-RPC).
struct RpcError {
  int code = kInternalError;
  char message[kErrorMessageCapacity] = {};
};

/// Writes code and message of a failed check and returns false.
inline bool refuse(RpcError& error, int code, std::string_view message) {
  error.code = code;
  return refuse(error.message, message);
}

/// One reply line. Takes OutputLock at construction and adds what every reply begins with, the id
/// included; adds the line feed, writes the line and releases the lock at destruction. A line that
/// fits the buffer is one write; a longer one is written in pieces of the buffer's size, so that no
/// reply can fail for want of memory.
class ReplyLine {
 public:
  /// The id: a string of at most 95 bytes re-escaped, any other value as it was received, null for
  /// none and for a string that is longer or does not decode.
  explicit ReplyLine(RequestId id);
  ~ReplyLine();
  ReplyLine(const ReplyLine&) = delete;
  ReplyLine& operator=(const ReplyLine&) = delete;

  /// Adds the bytes as they stand.
  ReplyLine& raw(std::string_view bytes);
  /// Adds a JSON string literal. Escapes the quotation mark, the backslash and control bytes;
  /// everything else is added unchanged.
  ReplyLine& string(std::string_view text);
  ReplyLine& number(std::int64_t value);

 private:
  void add_id(RequestId id);
  void flush();

  std::size_t used_ = 0;
};

/// A JSON-RPC error: {"jsonrpc":"2.0","id":...,"error":{"code":...,"message":...}}
void write_error_reply(RequestId id, int code, std::string_view message);

/// The result of a tool that has failed: the message as text, and, unless it is empty, a JSON text
/// as structured content.
void write_tool_failure(RequestId id, std::string_view message, std::string_view structured = {});

/// The result of a tool that has succeeded: its JSON text, both as text and as structured content.
void write_tool_success(RequestId id, std::string_view json);

}  // namespace kova
