#include "json/reply.h"

#include <cstring>

#include "base/byte_run.h"
#include "json/output_lock.h"
#include "platform/console.h"

namespace kova {

namespace {

// As much as a pipe takes at once. Guarded by OutputLock; pages of it that no reply reaches are
// never touched.
constexpr std::size_t kLineCapacity = 65536;
char line_buffer[kLineCapacity];

}  // namespace

ReplyLine::ReplyLine() {
  OutputLock.lock();
}

ReplyLine::~ReplyLine() {
  raw("\n");
  write_stdout({line_buffer, used_});
  OutputLock.unlock();
}

ReplyLine& ReplyLine::raw(std::string_view bytes) {
  while (bytes.size() > kLineCapacity - used_) {
    const std::size_t part = kLineCapacity - used_;
    std::memcpy(line_buffer + used_, bytes.data(), part);
    bytes.remove_prefix(part);
    write_stdout({line_buffer, kLineCapacity});
    used_ = 0;
  }
  if (!bytes.empty()) std::memcpy(line_buffer + used_, bytes.data(), bytes.size());
  used_ += bytes.size();
  return *this;
}

ReplyLine& ReplyLine::string(std::string_view text) {
  static constexpr std::string_view kEscapedBytes = "\"\\\b\f\n\r\t";
  static constexpr std::string_view kLetters = "\"\\bfnrt";
  const char* p = text.data();
  const char* const end = p + text.size();
  raw("\"");
  while (p != end) {
    const char* const stop = find_run_end<NonAscii::kPlain>(p, end);
    raw({p, static_cast<std::size_t>(stop - p)});
    if (stop == end) break;
    const std::size_t letter = kEscapedBytes.find(*stop);
    if (letter != kEscapedBytes.npos) {
      const char escape[] = {'\\', kLetters[letter]};
      raw({escape, sizeof escape});
    } else {
      char escape[8];
      TextOut out(escape);
      if (out.format("\\u%04x", static_cast<unsigned>(*stop))) raw(out.view());
    }
    p = stop + 1;
  }
  return raw("\"");
}

ReplyLine& ReplyLine::number(long long value) {
  char digits[24];
  TextOut out(digits);
  return out.format("%lld", value) ? raw(out.view()) : *this;
}

ReplyLine& ReplyLine::id(RequestId id) {
  if (id.doc == nullptr || id.token < 0) return raw("null");
  if (!id.doc->is(id.token, JsonType::kString)) return raw(id.doc->raw(id.token));
  char text[kIdCapacity];
  return json_get_string(*id.doc, id.token, text) ? string(text) : raw("null");
}

void write_error_reply(RequestId id, int code, std::string_view message) {
  ReplyLine()
      .raw(R"({"jsonrpc":"2.0","id":)")
      .id(id)
      .raw(R"(,"error":{"code":)")
      .number(code)
      .raw(R"(,"message":)")
      .string(message)
      .raw("}}");
}

}  // namespace kova
