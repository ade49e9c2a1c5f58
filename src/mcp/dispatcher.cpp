#include "mcp/dispatcher.h"

#include "mcp/duplicate_keys.h"
#include "mcp/tool_list.h"
#include "tools/tool_call.h"

namespace kova {

namespace {

constexpr std::size_t kVersionCapacity = 8;

constexpr std::string_view kInitializeResult =
    R"(,"result":{"protocolVersion":"2025-11-25","capabilities":{"tools":{"listChanged":false}},)"
    R"("serverInfo":{"name":"Vantreo MCP","version":")" KOVA_VERSION_LABEL R"(",)"
    R"("description":"Policy-constrained Vantreo database and AI search tools"}}})";

/// One message on its way through the checks.
struct Request {
  const JsonDoc& doc;
  ProtocolState& state;
  ToolContext& tools;
  int id;
  int params;

  [[nodiscard]] RequestId request_id() const { return {.doc = &doc, .token = id}; }
  [[nodiscard]] bool has_id() const { return id >= 0; }
};

// A number is compared by its source text, so 2.0 without quotation marks passes.
bool check_version(const JsonDoc& doc, RpcError& error) {
  char version[kVersionCapacity];
  const int token = json_find(doc, 0, "jsonrpc");
  return (json_get_scalar_text(doc, token, version) && std::string_view(version) == "2.0") ||
         refuse(error, kInvalidRequest, "jsonrpc must be 2.0");
}

bool check_method(const JsonDoc& doc, TextOut method, RpcError& error) {
  return json_get_string(doc, json_find(doc, 0, "method"), method) ||
         refuse(error, kInvalidRequest, "method is required");
}

/// Uses the id up, before the method is looked at.
bool check_id(const JsonDoc& doc, int token, RequestIdRegistry& ids, RpcError& error) {
  if (token < 0) return true;
  const bool is_scalar = doc.is(token, JsonType::kString) || doc.is(token, JsonType::kPrimitive);
  char id[kIdCapacity];
  return (is_scalar && json_get_scalar_text(doc, token, id) && std::string_view(id) != "null" &&
          ids.add(id)) ||
         refuse(error, kInvalidRequest, "request id is invalid or already used");
}

bool initialize(const Request& request, RpcError& error) {
  if (request.state.Initialized) {
    return refuse(error, kInvalidRequest, "server is already initialized");
  }
  ReplyLine(request.request_id()).raw(kInitializeResult);
  request.state.Initialized = true;
  return true;
}

bool ping(const Request& request, RpcError& /*error*/) {
  ReplyLine(request.request_id()).raw(R"(,"result":{}})");
  return true;
}

bool list_tools(const Request& request, RpcError& /*error*/) {
  write_tool_list(request.request_id(), request.tools.policy);
  return true;
}

bool call_tool(const Request& request, RpcError& error) {
  return handle_tools_call(request.doc, request.id, request.params, request.tools, error);
}

/// A method of an initialized server; its handler writes the reply, or leaves the error.
struct Method {
  std::string_view name;
  bool (*handler)(const Request& request, RpcError& error);
};

constexpr Method kMethods[] = {
    {.name = "ping", .handler = ping},
    {.name = "tools/list", .handler = list_tools},
    {.name = "tools/call", .handler = call_tool},
};

bool is_client_notification(std::string_view method) {
  return method == "notifications/initialized" || method == "notifications/cancelled";
}

bool route(const Request& request, std::string_view method, RpcError& error) {
  if (is_client_notification(method) && request.has_id()) {
    return refuse(error, kInvalidRequest, "notifications must not contain an id");
  }
  if (!request.has_id()) return true;
  if (method == "initialize") return initialize(request, error);
  if (!request.state.Initialized) {
    return refuse(error, kNotInitialized, "server is not initialized");
  }
  for (const Method& known : kMethods) {
    if (known.name == method) return known.handler(request, error);
  }
  return refuse(error, kMethodNotFound, "method not found");
}

bool serve(const Request& request, RpcError& error) {
  char method[kMethodCapacity];
  return check_message(request.doc, request.id, request.state, method, error) &&
         route(request, method, error);
}

}  // namespace

bool parse_message(std::string_view message, const HeapArray<JsonToken>& tokens, JsonDoc& doc,
                   RpcError& error) {
  if (!tokens) return refuse(error, kInternalError, kServerMemoryLimit);
  return (json_parse(message, tokens.data(), static_cast<int>(tokens.capacity()), doc) &&
          doc.is(0, JsonType::kObject) && !has_duplicate_keys(doc)) ||
         refuse(error, kParseError, "invalid, duplicate, deep, or oversized JSON message");
}

bool check_message(const JsonDoc& doc, int id, ProtocolState& state, TextOut method,
                   RpcError& error) {
  return check_version(doc, error) && check_method(doc, method, error) &&
         check_id(doc, id, state.request_ids, error);
}

void dispatch(std::string_view message, ProtocolState& state, ToolContext& tools) {
  const HeapArray<JsonToken> tokens(
      static_cast<std::size_t>(json_token_count(message, kMessageTokenCapacity)));
  JsonDoc doc;
  RequestId id;
  RpcError error;
  bool served = parse_message(message, tokens, doc, error);
  if (served) {
    const Request request{.doc = doc,
                          .state = state,
                          .tools = tools,
                          .id = json_find(doc, 0, "id"),
                          .params = json_find(doc, 0, "params")};
    id = request.request_id();
    served = serve(request, error);
  }
  if (!served) write_error_reply(id, error.code, error.message);
}

}  // namespace kova
