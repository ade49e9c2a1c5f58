// A message through the pre-scan and the dispatcher, under several policies: whatever comes in, at
// most one line comes out, and it is a JSON-RPC reply.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "app/prescan.h"
#include "fuzz/require.h"
#include "json/json.h"
#include "mcp/dispatcher.h"

namespace {

using kova::JsonDoc;
using kova::JsonToken;
using kova::fuzz::require;

/// Standard output in memory.
class Output {
 public:
  Output() : file_(memfd_create("replies", 0)) {
    if (file_ < 0 || dup2(file_, STDOUT_FILENO) < 0) std::abort();
  }

  std::string take() {
    const off_t size = lseek(STDOUT_FILENO, 0, SEEK_CUR);
    std::string text(static_cast<std::size_t>(size), '\0');
    if (size > 0 && pread(file_, text.data(), text.size(), 0) != size) std::abort();
    if (lseek(STDOUT_FILENO, 0, SEEK_SET) != 0) std::abort();
    return text;
  }

 private:
  int file_;
};

kova::McpPolicy open_policy() {
  kova::McpPolicy policy{};
  policy.valid = true;
  policy.reads_enabled = true;
  policy.provider_reads_enabled = true;
  return policy;
}

kova::McpPolicy restricted_policy() {
  kova::McpPolicy policy = open_policy();
  policy.configured = true;
  policy.writes_enabled = true;
  policy.write_type_mask = kova::kInsert;
  std::strcpy(policy.name, "fuzz");
  std::strcpy(policy.allowed_tables.names[0], "PACKAGES");
  policy.allowed_tables.count = 1;
  std::strcpy(policy.denied_columns.names[0], "maintainer");
  policy.denied_columns.count = 1;
  std::strcpy(policy.allowed_collections.names[0], "notes");
  policy.allowed_collections.count = 1;
  std::strcpy(policy.write_tables.names[0], "PACKAGES");
  policy.write_tables.count = 1;
  return policy;
}

void check_reply(const std::string& reply) {
  if (reply.empty()) return;
  require(reply.find('\n') == reply.size() - 1, "a reply is one line");
  static JsonToken tokens[2 * kova::kMessageTokenCapacity];
  JsonDoc doc;
  require(kova::json_parse(reply, tokens, 2 * kova::kMessageTokenCapacity, doc), "a reply is JSON");
  const int version = kova::json_find(doc, 0, "jsonrpc");
  require(version > 0 && doc.raw(version) == "2.0", "a reply is JSON-RPC");
  require(kova::json_find(doc, 0, "id") > 0, "a reply has an id");
  require((kova::json_find(doc, 0, "result") > 0) != (kova::json_find(doc, 0, "error") > 0),
          "a reply has either a result or an error");
}

void check_prescan(std::string_view message) {
  const kova::Prescan found = kova::prescan(message);
  const std::string_view id(found.raw_id);
  require(!found.is_tool_call || !found.is_cancel, "a message is not both");
  require(!found.is_tool_call || !id.empty(), "a tool call has an id");
  require(std::strlen(found.cancelled_id) < kova::kIdCapacity, "the cancelled id is terminated");
  if (id.empty()) return;
  static JsonToken tokens[kova::kMessageTokenCapacity];
  JsonDoc doc;
  require(kova::json_parse(id, tokens, kova::kMessageTokenCapacity, doc),
          "an id is echoed as JSON");
}

void dispatch_under(const kova::McpPolicy& policy, bool initialized, std::string_view message,
                    Output& output) {
  kova::AuditContext audit{};
  kova::DbSession session;
  kova::ToolContext tools{.policy = policy, .audit = audit, .session = session};
  kova::ProtocolState state;
  state.Initialized = initialized;
  kova::dispatch(message, state, tools);
  check_reply(output.take());
  require(state.request_ids.count() <= 1, "a message uses one id up at most");
  // The same id again is refused, so a second time nothing is done.
  const bool used = state.request_ids.count() == 1;
  kova::dispatch(message, state, tools);
  const std::string second = output.take();
  check_reply(second);
  require(!used || second.find("request id is invalid or already used") != std::string::npos,
          "an id is used up");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Output output;
  static const kova::McpPolicy open = open_policy();
  static const kova::McpPolicy restricted = restricted_policy();
  static const kova::McpPolicy invalid{};
  const std::string_view message(reinterpret_cast<const char*>(data), size);
  check_prescan(message);
  dispatch_under(open, false, message, output);
  dispatch_under(open, true, message, output);
  dispatch_under(restricted, true, message, output);
  dispatch_under(invalid, true, message, output);
  return 0;
}
