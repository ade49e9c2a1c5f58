#include "mcp/dispatcher.h"

#include <cstdlib>

#include "json/reply.h"
#include "mcp/duplicate_keys.h"
#include "mcp/tool_catalogue.h"

namespace kova {

namespace {

constexpr std::size_t kMethodCapacity = 96;
constexpr std::size_t kVersionCapacity = 8;

constexpr std::string_view kInitializeResult =
    R"(,"result":{"protocolVersion":"2025-11-25","capabilities":{"tools":{"listChanged":false}},)"
    R"("serverInfo":{"name":"Vantreo MCP","version":"1.25-m8",)"
    R"("description":"Policy-constrained Vantreo database and AI search tools"}}})";

/// The tokens of one message; null without memory.
struct TokenArray {
  TokenArray()
      : tokens(static_cast<JsonToken*>(std::malloc(kMessageTokenCapacity * sizeof(JsonToken)))) {}
  ~TokenArray() { std::free(tokens); }
  TokenArray(const TokenArray&) = delete;
  TokenArray& operator=(const TokenArray&) = delete;

  JsonToken* tokens;
};

/// One message on its way through the checks.
struct Request {
  const JsonDoc& doc;
  ProtocolState& state;
  ToolContext& tools;
  int id;
  int params;

  [[nodiscard]] RequestId request_id() const { return {.doc = &doc, .token = id}; }
  [[nodiscard]] bool has_id() const { return id >= 0; }
  [[nodiscard]] bool refuse(int code, std::string_view message) const {
    write_error_reply(request_id(), code, message);
    return false;
  }
};

// A number is compared by its source text, so 2.0 without quotation marks passes.
bool check_version(const Request& request) {
  char version[kVersionCapacity];
  const int token = json_find(request.doc, 0, "jsonrpc");
  return (json_get_scalar_text(request.doc, token, version) &&
          std::string_view(version) == "2.0") ||
         request.refuse(kInvalidRequest, "jsonrpc must be 2.0");
}

bool check_method(const Request& request, TextOut method) {
  return json_get_string(request.doc, json_find(request.doc, 0, "method"), method) ||
         request.refuse(kInvalidRequest, "method is required");
}

/// Uses the id up, before the method is looked at.
bool check_id(const Request& request) {
  if (!request.has_id()) return true;
  const JsonDoc& doc = request.doc;
  const bool is_scalar =
      doc.is(request.id, JsonType::kString) || doc.is(request.id, JsonType::kPrimitive);
  char id[kIdCapacity];
  if (is_scalar && json_get_scalar_text(doc, request.id, id) && std::string_view(id) != "null" &&
      request.state.request_ids.add(id)) {
    return true;
  }
  return request.refuse(kInvalidRequest, "request id is invalid or already used");
}

void initialize(const Request& request) {
  if (request.state.Initialized) {
    static_cast<void>(request.refuse(kInvalidRequest, "server is already initialized"));
    return;
  }
  ReplyLine().raw(R"({"jsonrpc":"2.0","id":)").id(request.request_id()).raw(kInitializeResult);
  request.state.Initialized = true;
}

void ping(const Request& request) {
  ReplyLine().raw(R"({"jsonrpc":"2.0","id":)").id(request.request_id()).raw(R"(,"result":{}})");
}

void list_tools(const Request& request) {
  write_tool_list(request.request_id(), request.tools.policy);
}

void call_tool(const Request& request) {
  handle_tools_call(request.doc, request.id, request.params, request.tools);
}

struct Method {
  std::string_view name;
  void (*handler)(const Request& request);
};

constexpr Method kMethods[] = {
    {.name = "ping", .handler = ping},
    {.name = "tools/list", .handler = list_tools},
    {.name = "tools/call", .handler = call_tool},
};

bool is_client_notification(std::string_view method) {
  return method == "notifications/initialized" || method == "notifications/cancelled";
}

void route(const Request& request, std::string_view method) {
  if (is_client_notification(method) && request.has_id()) {
    static_cast<void>(request.refuse(kInvalidRequest, "notifications must not contain an id"));
    return;
  }
  if (!request.has_id()) return;
  if (method == "initialize") {
    initialize(request);
    return;
  }
  if (!request.state.Initialized) {
    static_cast<void>(request.refuse(kNotInitialized, "server is not initialized"));
    return;
  }
  for (const Method& known : kMethods) {
    if (known.name == method) {
      known.handler(request);
      return;
    }
  }
  static_cast<void>(request.refuse(kMethodNotFound, "method not found"));
}

}  // namespace

void dispatch(std::string_view message, ProtocolState& state, ToolContext& tools) {
  const TokenArray array;
  if (array.tokens == nullptr) {
    write_error_reply({}, kInternalError, kServerMemoryLimit);
    return;
  }
  JsonDoc doc;
  if (!json_parse(message, array.tokens, kMessageTokenCapacity, doc) ||
      !doc.is(0, JsonType::kObject) || has_duplicate_keys(doc)) {
    write_error_reply({}, kParseError, "invalid, duplicate, deep, or oversized JSON message");
    return;
  }
  const Request request{.doc = doc,
                        .state = state,
                        .tools = tools,
                        .id = json_find(doc, 0, "id"),
                        .params = json_find(doc, 0, "params")};
  char method[kMethodCapacity];
  if (check_version(request) && check_method(request, method) && check_id(request)) {
    route(request, method);
  }
}

}  // namespace kova
