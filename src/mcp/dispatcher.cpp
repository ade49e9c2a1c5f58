#include "mcp/dispatcher.h"

#include "base/heap_array.h"
#include "base/text.h"
#include "json/json.h"
#include "json/reply.h"
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
bool check_version(const Request& request, RpcError& error) {
  char version[kVersionCapacity];
  const int token = json_find(request.doc, 0, "jsonrpc");
  return (json_get_scalar_text(request.doc, token, version) &&
          std::string_view(version) == "2.0") ||
         refuse(error, kInvalidRequest, "jsonrpc must be 2.0");
}

bool check_method(const Request& request, TextOut method, RpcError& error) {
  return json_get_string(request.doc, json_find(request.doc, 0, "method"), method) ||
         refuse(error, kInvalidRequest, "method is required");
}

/// Uses the id up, before the method is looked at.
bool check_id(const Request& request, RpcError& error) {
  if (!request.has_id()) return true;
  const JsonDoc& doc = request.doc;
  const bool is_scalar =
      doc.is(request.id, JsonType::kString) || doc.is(request.id, JsonType::kPrimitive);
  char id[kIdCapacity];
  return (is_scalar && json_get_scalar_text(doc, request.id, id) &&
          std::string_view(id) != "null" && request.state.request_ids.add(id)) ||
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
  return check_version(request, error) && check_method(request, method, error) &&
         check_id(request, error) && route(request, method, error);
}

bool parse(std::string_view message, const HeapArray<JsonToken>& tokens, JsonDoc& doc,
           RpcError& error) {
  if (!tokens) return refuse(error, kInternalError, kServerMemoryLimit);
  return (json_parse(message, tokens.data(), kMessageTokenCapacity, doc) &&
          doc.is(0, JsonType::kObject) && !has_duplicate_keys(doc)) ||
         refuse(error, kParseError, "invalid, duplicate, deep, or oversized JSON message");
}

}  // namespace

void dispatch(std::string_view message, ProtocolState& state, ToolContext& tools) {
  const HeapArray<JsonToken> tokens(kMessageTokenCapacity);
  JsonDoc doc;
  RequestId id;
  RpcError error;
  bool served = parse(message, tokens, doc, error);
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
