#include "escape_bench.h"

#define RAPIDJSON_SSE2
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>

#include "contender.h"
#include "db/out_buf.h"
#include "json/reply.h"
#include "json_inputs.h"

namespace kova_bench {

namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
using CheckingWriter =
    rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>,
                      rapidjson::CrtAllocator, rapidjson::kWriteValidateEncodingFlag>;

/// Into memory that is got once and used again.
template <typename TextWriter>
bool write_rapidjson(rapidjson::StringBuffer& buffer, const std::string& text) {
  buffer.Clear();
  TextWriter writer(buffer);
  return writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

bool write_line_rapidjson(rapidjson::StringBuffer& buffer, const std::string& text) {
  if (!write_rapidjson<Writer>(buffer, text)) return false;
  buffer.Put('\n');
  return ::write(STDOUT_FILENO, buffer.GetString(), buffer.GetSize()) > 0;
}

bool write_line_ours(const std::string& text) {
  kova::ReplyLine({}).string(text);
  return true;
}

bool append_ours(const std::string& text) {
  kova::OutBuf buffer;
  return buffer.append_escaped(text) && buffer.length() > text.size();
}

// A buffer of each one's own, as a result has.
bool append_rapidjson(const std::string& text) {
  rapidjson::StringBuffer buffer(nullptr, kova::kOutBufInitialCapacity);
  return write_rapidjson<Writer>(buffer, text) && buffer.GetSize() > text.size();
}

void register_text(const TextInput& input) {
  const std::string& text = input.text;
  const auto buffer = std::make_shared<rapidjson::StringBuffer>();
  const auto add = [&](const char* group, const char* contender, std::function<bool()> run) {
    register_contender(group, input.name, contender, text.size(), std::move(run));
  };
  add("reply line", "ours", [&text] { return write_line_ours(text); });
  add("reply line", "RapidJSON Writer",
      [buffer, &text] { return write_line_rapidjson(*buffer, text); });
  add("result text", "ours", [&text] { return append_ours(text); });
  add("result text", "RapidJSON Writer", [&text] { return append_rapidjson(text); });
  add("result text", "RapidJSON Writer, UTF-8",
      [buffer, &text] { return write_rapidjson<CheckingWriter>(*buffer, text); });
}

}  // namespace

void register_escape_benchmarks() {
  for (const TextInput& input : text_inputs()) register_text(input);
}

}  // namespace kova_bench
