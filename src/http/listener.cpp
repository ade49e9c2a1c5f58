#include "http/listener.h"

#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "base/decimal.h"
#include "base/exit_code.h"
#include "base/text.h"
#include "http/child_starter.h"
#include "http/connection.h"
#include "http/rate_window.h"
#include "http/response.h"
#include "http/session_table.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/socket.h"

namespace kova {

namespace {

constexpr std::uint64_t kPortLimit = 65535;

constexpr HttpResponse kConnectionLimit{
    .status = 503, .reason = "Unavailable", .body = R"({"error":"connection limit"})"};

/// What connections share. It is never destroyed: they may outlast the accept loop.
struct Shared {
  Shared(std::string_view port, void (*job_refused)()) : starter(nullptr, job_refused) {
    TextOut(port_text).copy_cut(port);
  }

  ChildStarter starter;
  RateWindow rate;
  SessionTable sessions{starter, tick_ms};
  HttpState state{.rate = rate, .sessions = sessions};
  char port_text[kPortTextCapacity];
};

/// What a connection's thread is given and frees.
struct ConnectionContext {
  ConnectionContext(Socket&& accepted, Shared& all) : socket(std::move(accepted)), shared(all) {}

  Socket socket;
  Shared& shared;
};

void free_context(ConnectionContext* context) {
  std::destroy_at(context);
  std::free(context);
}

void* serve_connection(void* argument) {
  auto* const context = static_cast<ConnectionContext*>(argument);
  handle_connection(context->socket, context->shared.port_text, context->shared.state);
  context->socket.shut_down();
  free_context(context);
  return nullptr;
}

void serve(Socket& socket, Shared& shared) {
  void* const memory = std::malloc(sizeof(ConnectionContext));
  if (memory == nullptr) {
    write_response(socket, kConnectionLimit);
    return;
  }
  auto* const context =
      std::construct_at(static_cast<ConnectionContext*>(memory), std::move(socket), shared);
  if (!start_detached(serve_connection, context)) free_context(context);
}

void announce(const char* port_text) {
  write_stderr("Vantreo MCP HTTP listening on 127.0.0.1:");
  write_stderr(port_text);
  write_stderr(" (TLS termination required)\n");
}

}  // namespace

int run_http_listener(const char* port_text, void (*job_refused)()) {
  const std::uint64_t port = whole_decimal(port_text).value_or(0);
  if (port < 1 || port > kPortLimit) return kExitFailure;
  const SocketLayer layer;
  LoopbackListener listener;
  void* const memory = std::malloc(sizeof(Shared));
  if (!layer.ready() || !listener.listen(static_cast<std::uint16_t>(port)) || memory == nullptr) {
    std::free(memory);
    return kExitFailure;
  }
  Shared& shared = *std::construct_at(static_cast<Shared*>(memory), port_text, job_refused);
  if (!shared.starter.run()) return kExitFailure;
  announce(port_text);
  Socket client;
  while (listener.accept(client)) serve(client, shared);
  shared.sessions.close_all();
  return kExitOk;
}

}  // namespace kova
