// A message through the pre-scan and the dispatcher, under one of several policies: whatever comes
// in, at most one line comes out, and it is a JSON-RPC reply. Standard output is in memory here.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>

#include "app/prescan.h"
#include "fuzz/json_mutator.h"
#include "fuzz/require.h"
#include "json/json.h"
#include "mcp/dispatcher.h"
#include "platform/console.h"

namespace {

std::string output;

std::string take_output() {
  return std::exchange(output, {});
}

}  // namespace

// Stands in for platform/posix/console.cpp.
namespace kova {

void prepare_standard_streams() {}

std::size_t read_stdin(char* /*data*/, std::size_t /*size*/) {
  return 0;
}

void write_stdout(std::string_view bytes) {
  output += bytes;
}

void write_stderr(std::string_view /*text*/) {}

}  // namespace kova

namespace {

using kova::JsonDoc;
using kova::JsonToken;
using kova::fuzz::require;

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

void dispatch_under(const kova::McpPolicy& policy, bool initialized, std::string_view message) {
  kova::AuditContext audit{};
  kova::DbSession session;
  kova::ToolContext tools{.policy = policy, .audit = audit, .session = session};
  kova::ProtocolState state;
  state.Initialized = initialized;
  kova::dispatch(message, state, tools);
  check_reply(take_output());
  require(state.request_ids.count() <= 1, "a message uses one id up at most");
  // The same id again is refused, so a second time nothing is done.
  const bool used = state.request_ids.count() == 1;
  kova::dispatch(message, state, tools);
  const std::string second = take_output();
  check_reply(second);
  require(!used || second.find("request id is invalid or already used") != std::string::npos,
          "an id is used up");
}

constexpr std::string_view kKeys[] = {
    "\"jsonrpc\"",        "\"id\"",           "\"method\"",    "\"params\"",
    "\"name\"",           "\"arguments\"",    "\"_meta\"",     "\"sql\"",
    "\"max_rows\"",       "\"table\"",        "\"requestId\"", "\"collection\"",
    "\"query\"",          "\"vector\"",       "\"top\"",       "\"text\"",
    "\"approval_token\"", "\"m\\u0065thod\"", "\"provider\"",  "\"columns\"",
    "\"source_table\"",   "\"key_field\""};
constexpr std::string_view kValues[] = {"\"2.0\"",
                                        "2.0",
                                        "\"initialize\"",
                                        "\"ping\"",
                                        "\"tools/list\"",
                                        "\"tools/call\"",
                                        "\"notifications/initialized\"",
                                        "\"notifications/cancelled\"",
                                        "\"kova_query\"",
                                        "\"kova_execute\"",
                                        "\"kova_list_databases\"",
                                        "\"kova_list_tables\"",
                                        "\"kova_describe_table\"",
                                        "\"kova_ai_status\"",
                                        "\"kova_vector_search\"",
                                        "\"kova_hybrid_search\"",
                                        "\"kova_text_search\"",
                                        "\"PACKAGES\"",
                                        "\"notes\"",
                                        "\"SELECT a FROM PACKAGES\"",
                                        "\"INSERT INTO PACKAGES VALUES (1)\"",
                                        "[0.5,-1,1e3]",
                                        "1",
                                        "\"1\"",
                                        "null",
                                        "100"};

}  // namespace

constexpr kova::fuzz::JsonVocabulary kova::fuzz::kJsonVocabulary = {.keys = kKeys,
                                                                    .values = kValues};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kova::McpPolicy open = open_policy();
  static const kova::McpPolicy restricted = restricted_policy();
  static const kova::McpPolicy invalid{};
  std::string_view message(reinterpret_cast<const char*>(data), size);
  // A message is a line.
  message = message.substr(0, message.find('\n'));
  check_prescan(message);
  // Chosen by the input, so that an input that is found again does the same again.
  switch (std::accumulate(data, data + size, 0u) % 4) {
    case 0:
      dispatch_under(open, false, message);
      break;
    case 1:
      dispatch_under(open, true, message);
      break;
    case 2:
      dispatch_under(restricted, true, message);
      break;
    default:
      dispatch_under(invalid, true, message);
  }
  return 0;
}
