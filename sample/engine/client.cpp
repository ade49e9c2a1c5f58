#include <string>
#include <string_view>

#include "engine/client.h"

#include <exception>
#include <utility>

#include "engine/dialect.h"
#include "engine/rows.h"
#include "platform/clock.h"

namespace kova::sample {

namespace {

// Column names that leave room for a row.
constexpr std::size_t kNamesLimit = wire::kReplyLimit / 4;

void append_names(const Query& query, wire::FrameWriter& reply) {
  const int columns = query.is_open() ? query.columns() : 0;
  reply.u16(static_cast<std::uint16_t>(columns));
  for (int column = 0; column < columns; ++column) {
    const std::string_view name = query.column_name(column);
    if (reply.payload_size() + name.size() > kNamesLimit) {
      throw Failure("the column names are too long");
    }
    reply.text(name);
  }
}

void compose_failure(wire::FrameWriter& reply, std::string_view message) {
  reply.shrink(0);
  reply.u8(0);
  reply.text(message);
  reply.u16(0);
  RowBlock(reply).finish({});
}

}  // namespace

Client::Client(int socket, std::uint64_t number, const Settings& settings)
    : settings_(settings),
      number_(number),
      channel_(socket, settings.timeout_ms),
      client_watch_(socket, settings.stopping),
      session_(settings.users, settings.databases, client_watch_),
      login_by_(tick_ms() + settings.timeout_ms) {}

void Client::serve() {
  try {
    reply_to_all();
  } catch (const std::exception& failure) {
    refuse(failure.what());
  }
  objects_.clear();
  const std::int64_t ended = session_.end();
  if (ended == 0) return;
  settings_.log.event(number_, "ended, and its temporary tables with it: " + std::to_string(ended));
}

void Client::reply_to_all() {
  if (!greet()) return;
  wire::Type type{};
  while (receive(session_.logged_in() ? 0 : login_by_, type) && reply_to(type)) {
  }
}

bool Client::receive(std::uint64_t begin_by, wire::Type& type) {
  const Channel::Received received = channel_.receive(begin_by, type);
  if (received == Channel::Received::kTooLarge) throw Failure("the frame is too large");
  return received == Channel::Received::kFrame;
}

bool Client::greet() {
  constexpr const char* kStranger = "not a client of this engine";
  wire::Type type{};
  const Channel::Received received = channel_.receive(login_by_, type);
  if (received == Channel::Received::kGone) return false;
  const std::string_view payload = channel_.payload();
  if (received == Channel::Received::kTooLarge || type != wire::Type::kHello ||
      payload.size() != wire::kHelloSize) {
    throw Failure(kStranger);
  }
  wire::PayloadReader request(payload);
  if (request.u32() != wire::kMagic) throw Failure(kStranger);
  if (request.u16() != wire::kVersion) throw Failure("the version is not known");
  wire::FrameWriter reply(wire::Type::kWelcome);
  reply.u16(wire::kVersion);
  return channel_.send(reply.finish());
}

bool Client::reply_to(wire::Type type) {
  wire::PayloadReader request(channel_.payload());
  switch (type) {
    case wire::Type::kExec:
      return exec(request);
    case wire::Type::kFetch:
      return fetch(request);
    case wire::Type::kRelease:
      release(request);
      return true;
    default:
      throw Failure("the frame is not known");
  }
}

// A statement's failure ends here: returns its message, empty after success.
template <typename Work>
std::string Client::attempt(Query& query, const Work& work) {
  try {
    work();
    return {};
  } catch (const std::exception& failure) {
    query.close();
    return failure.what();
  }
}

bool Client::exec(wire::PayloadReader& request) {
  const std::uint32_t object = request.u32();
  const std::string_view statement = request.text();
  request.expect_end();
  if (!objects_.contains(object) && objects_.size() >= wire::kObjectLimit) {
    throw Failure("too many statement objects");
  }
  const std::uint64_t started = tick_ms();
  wire::FrameWriter reply(wire::Type::kOutcome);
  Query& query = objects_[object];
  query.close();
  std::string status;
  const std::string message = attempt(query, [&] {
    Outcome outcome = run_statement(session_, statement);
    status = outcome.status;
    query = std::move(outcome.query);
    reply.u8(1);
    reply.text(status);
    append_names(query, reply);
    RowBlock rows(reply);
    rows.fill(query);
    rows.finish({});
  });
  if (!message.empty()) compose_failure(reply, message);
  if (settings_.log.on()) log(loggable(statement), status, message, started);
  channel_.wipe_payload();
  return channel_.send(reply.finish());
}

bool Client::fetch(wire::PayloadReader& request) {
  const std::uint32_t object = request.u32();
  request.expect_end();
  const auto found = objects_.find(object);
  if (found == objects_.end()) throw Failure("the statement object is not known");
  const std::uint64_t started = tick_ms();
  wire::FrameWriter reply(wire::Type::kRows);
  RowBlock rows(reply);
  const std::string message = attempt(found->second, [&] { rows.fill(found->second); });
  rows.finish(message);
  log("(fetch)", "OK", message, started);
  return channel_.send(reply.finish());
}

void Client::release(wire::PayloadReader& request) {
  const std::uint32_t object = request.u32();
  request.expect_end();
  objects_.erase(object);
}

void Client::refuse(std::string_view reason) {
  wire::FrameWriter reply(wire::Type::kRefused);
  reply.text(reason);
  static_cast<void>(channel_.send(reply.finish()));
  settings_.log.event(number_, "refused: " + std::string(reason));
}

void Client::log(std::string_view what, std::string_view status, std::string_view message,
                 std::uint64_t started) {
  const std::string_view failure = client_watch_.gone() ? "interrupted" : message;
  settings_.log.statement(number_, what, message.empty() ? status : failure, tick_ms() - started);
}

}  // namespace kova::sample
