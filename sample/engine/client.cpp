#include <string>
#include <string_view>

#include "engine/client.h"

#include "engine/dialect.h"
#include "engine/rows.h"
#include "platform/clock.h"

namespace kova::sample {

namespace {

// Column names that leave room for a row.
constexpr std::size_t kNamesLimit = wire::kReplyLimit / 4;

bool append_names(const Query& query, wire::FrameWriter& reply) {
  const int columns = query.is_open() ? query.columns() : 0;
  reply.u16(static_cast<std::uint16_t>(columns));
  for (int column = 0; column < columns; ++column) {
    const std::string_view name = query.column_name(column);
    if (reply.payload_size() + name.size() > kNamesLimit) return false;
    reply.text(name);
  }
  return true;
}

void compose_failure(wire::FrameWriter& reply, std::string_view status) {
  reply.shrink(0);
  reply.u8(0);
  reply.text(status);
  reply.u16(0);
  reply.u16(0);
  reply.u8(static_cast<std::uint8_t>(wire::RowsEnd::kEnd));
  reply.text("");
}

}  // namespace

Client::Client(int socket, std::uint64_t number, const Settings& settings)
    : settings_(settings),
      number_(number),
      channel_(socket, settings.timeout_ms),
      watch_(socket, settings.stopping),
      session_(settings.users, settings.databases, watch_),
      login_by_(tick_ms() + settings.timeout_ms) {}

void Client::serve() {
  answer_all();
  objects_.clear();
  const std::int64_t ended = session_.end();
  if (ended > 0) {
    settings_.log.event(number_,
                        "ended, and its temporary tables with it: " + std::to_string(ended));
  }
}

void Client::answer_all() {
  if (!greet()) return;
  for (;;) {
    wire::Type type{};
    switch (channel_.receive(session_.logged_in() ? 0 : login_by_, type)) {
      case Channel::Received::kGone:
        return;
      case Channel::Received::kTooLarge:
        static_cast<void>(refuse("the frame is too large"));
        return;
      case Channel::Received::kFrame:
        break;
    }
    if (!answer(type)) return;
  }
}

bool Client::greet() {
  wire::Type type{};
  const Channel::Received received = channel_.receive(login_by_, type);
  if (received == Channel::Received::kGone) return false;
  wire::PayloadReader request(channel_.payload());
  std::uint32_t magic = 0;
  std::uint16_t version = 0;
  const bool hello = received == Channel::Received::kFrame && type == wire::Type::kHello &&
                     request.u32(magic) && request.u16(version) && request.at_end();
  if (!hello || magic != wire::kMagic) return refuse("not a client of this engine");
  if (version != wire::kVersion) return refuse("the version is not known");
  wire::FrameWriter reply(wire::Type::kWelcome);
  reply.u16(wire::kVersion);
  return channel_.send(reply.finish());
}

bool Client::answer(wire::Type type) {
  wire::PayloadReader request(channel_.payload());
  switch (type) {
    case wire::Type::kExec:
      return answer_exec(request);
    case wire::Type::kFetch:
      return answer_fetch(request);
    case wire::Type::kRelease:
      return release(request);
    default:
      return refuse("the frame is not known");
  }
}

bool Client::answer_exec(wire::PayloadReader& request) {
  std::uint32_t object = 0;
  std::string_view statement;
  if (!request.u32(object) || !request.text(statement) || !request.at_end()) {
    return refuse("the frame is malformed");
  }
  if (!objects_.contains(object) && objects_.size() >= wire::kObjectLimit) {
    return refuse("too many statement objects");
  }
  wire::FrameWriter reply(wire::Type::kOutcome);
  execute(statement, objects_[object], reply);
  channel_.wipe_payload();
  return channel_.send(reply.finish());
}

void Client::execute(std::string_view statement, Query& query, wire::FrameWriter& reply) {
  const std::uint64_t started = tick_ms();
  query.close();
  Outcome outcome = run_statement(session_, statement);
  std::string error;
  if (outcome.success) {
    reply.u8(1);
    reply.text(outcome.status);
    if (!append_names(outcome.query, reply)) {
      outcome = failed("the column names are too long");
    } else if (!append_rows(outcome.query, reply, error)) {
      outcome = failed(error);
    }
  }
  if (!outcome.success) compose_failure(reply, outcome.status);
  query = std::move(outcome.query);
  if (settings_.log.on()) {
    const std::string_view words = outcome_words(outcome.success, outcome.status);
    settings_.log.statement(number_, loggable(statement), words, tick_ms() - started);
  }
}

bool Client::answer_fetch(wire::PayloadReader& request) {
  std::uint32_t object = 0;
  if (!request.u32(object) || !request.at_end()) return refuse("the frame is malformed");
  const auto found = objects_.find(object);
  if (found == objects_.end()) return refuse("the statement object is not known");
  const std::uint64_t started = tick_ms();
  wire::FrameWriter reply(wire::Type::kRows);
  std::string error;
  const bool success = append_rows(found->second, reply, error);
  settings_.log.statement(number_, "(fetch)", outcome_words(success, success ? "OK" : error),
                          tick_ms() - started);
  return channel_.send(reply.finish());
}

bool Client::release(wire::PayloadReader& request) {
  std::uint32_t object = 0;
  if (!request.u32(object) || !request.at_end()) return refuse("the frame is malformed");
  objects_.erase(object);
  return true;
}

bool Client::refuse(std::string_view reason) {
  wire::FrameWriter reply(wire::Type::kRefused);
  reply.text(reason);
  static_cast<void>(channel_.send(reply.finish()));
  settings_.log.event(number_, "refused: " + std::string(reason));
  return false;
}

std::string_view Client::outcome_words(bool success, std::string_view status) {
  if (success) return status;
  return watch_.gone() ? "interrupted" : status;
}

}  // namespace kova::sample
