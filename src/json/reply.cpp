#include "json/reply.h"

#include <cstring>

#include "base/json_escape.h"
#include "json/output_lock.h"
#include "platform/console.h"

namespace kova {

namespace {

// The capacity of a pipe. Guarded by OutputLock. Short replies touch its first pages only.
constexpr std::size_t kLineCapacity = 65536;
char line_buffer[kLineCapacity];

}  // namespace

ReplyLine::ReplyLine(RequestId id) {
  OutputLock.lock();
  raw(R"({"jsonrpc":"2.0","id":)");
  add_id(id);
}

ReplyLine::~ReplyLine() {
  raw("\n");
  flush();
  OutputLock.unlock();
}

void ReplyLine::flush() {
  write_stdout({line_buffer, used_});
  used_ = 0;
}

ReplyLine& ReplyLine::raw(std::string_view bytes) {
  while (bytes.size() > kLineCapacity - used_) {
    const std::size_t part = kLineCapacity - used_;
    std::memcpy(line_buffer + used_, bytes.data(), part);
    bytes.remove_prefix(part);
    used_ = kLineCapacity;
    flush();
  }
  if (!bytes.empty()) std::memcpy(line_buffer + used_, bytes.data(), bytes.size());
  used_ += bytes.size();
  return *this;
}

ReplyLine& ReplyLine::string(std::string_view text) {
  const char* p = text.data();
  const char* const end = p + text.size();
  raw("\"");
  while (p != end) {
    const EscapeProgress progress =
        escape_json(EscapeStyle::kShort, p, end, line_buffer + used_, line_buffer + kLineCapacity);
    p = progress.source;
    used_ = static_cast<std::size_t>(progress.target - line_buffer);
    if (p != end) flush();
  }
  return raw("\"");
}

ReplyLine& ReplyLine::number(std::int64_t value) {
  char digits[24];
  TextOut out(digits);
  const auto magnitude = static_cast<std::uint64_t>(value);
  const bool fits = value >= 0 ? out.append_number(magnitude)
                               : out.append('-') && out.append_number(0 - magnitude);
  return fits ? raw(out.view()) : *this;
}

void ReplyLine::add_id(RequestId id) {
  if (!id.raw.empty()) {
    raw(id.raw);
    return;
  }
  const bool has_token = id.doc != nullptr && id.token >= 0;
  char text[kIdCapacity];
  if (has_token && !id.doc->is(id.token, JsonType::kString)) {
    raw(id.doc->raw(id.token));
  } else if (has_token && json_get_string(*id.doc, id.token, text)) {
    string(text);
  } else {
    raw("null");
  }
}

void write_error_reply(RequestId id, int code, std::string_view message) {
  ReplyLine(id)
      .raw(R"(,"error":{"code":)")
      .number(code)
      .raw(R"(,"message":)")
      .string(message)
      .raw("}}");
}

void write_tool_failure(RequestId id, std::string_view message, std::string_view structured) {
  ReplyLine line(id);
  line.raw(R"(,"result":{"content":[{"type":"text","text":)").string(message).raw("}]");
  if (!structured.empty()) line.raw(R"(,"structuredContent":)").raw(structured);
  line.raw(R"(,"isError":true}})");
}

void write_tool_success(RequestId id, std::string_view json) {
  ReplyLine(id)
      .raw(R"(,"result":{"content":[{"type":"text","text":)")
      .string(json)
      .raw(R"(}],"structuredContent":)")
      .raw(json)
      .raw(R"(,"isError":false}})");
}

}  // namespace kova
