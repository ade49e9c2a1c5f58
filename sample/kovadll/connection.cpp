#include "kovadll/connection.h"

#include "base/secret.h"

namespace kova::sample {

namespace {

constexpr std::uint32_t kConnectTimeoutMs = 3000;
constexpr const char* kLost = "connection to the engine was lost";

}  // namespace

std::shared_ptr<Connection> Connection::open(const char* host, const char* port) {
  auto connection = std::make_shared<Connection>();
  if (!connection->connect(host, port) || !connection->greet()) return nullptr;
  return connection;
}

bool Connection::connect(const char* host, const char* port) {
  AddressList addresses;
  if (!addresses.resolve(host, port)) return false;
  for (const void* address = addresses.first(); address != nullptr;
       address = AddressList::next(address)) {
    connected_ = socket_.connect(address, kConnectTimeoutMs);
    if (connected_) return true;
  }
  return false;
}

bool Connection::greet() {
  wire::FrameWriter hello(wire::Type::kHello);
  hello.u32(wire::kMagic);
  hello.u16(wire::kVersion);
  Payload payload;
  std::string error;
  if (!exchange(hello, wire::Type::kWelcome, payload, error)) return false;
  wire::PayloadReader reply({payload.data(), payload.size()});
  std::uint16_t version = 0;
  return reply.u16(version) && version == wire::kVersion;
}

bool Connection::exchange(wire::FrameWriter& request, wire::Type expected, Payload& payload,
                          std::string& error) {
  const std::lock_guard guard(mutex_);
  error = kLost;
  connected_ = connected_ && send(request.finish()) && receive(expected, payload, error);
  if (!connected_) socket_.close();
  return connected_;
}

bool Connection::send(std::string_view frame) {
  if (releases_.empty()) return socket_.send_all(frame.data(), frame.size());
  releases_ += frame;
  const bool sent = socket_.send_all(releases_.data(), releases_.size());
  wipe(releases_.data(), releases_.size());
  releases_.clear();
  return sent;
}

bool Connection::receive(wire::Type expected, Payload& payload, std::string& error) {
  char header_bytes[wire::kHeaderSize];
  if (!socket_.receive_all(header_bytes, sizeof header_bytes)) return false;
  const wire::Header header = wire::decode_header(header_bytes);
  if (header.size > wire::kReplyLimit) return false;
  payload.resize(header.size);
  if (!socket_.receive_all(payload.data(), payload.size())) return false;
  if (header.type == wire::Type::kRefused) {
    wire::PayloadReader reply({payload.data(), payload.size()});
    std::string_view reason;
    if (reply.text(reason)) error = "the engine refused: " + std::string(reason);
  }
  return header.type == expected;
}

void Connection::release(std::uint32_t object) {
  const std::lock_guard guard(mutex_);
  wire::FrameWriter request(wire::Type::kRelease);
  request.u32(object);
  releases_ += request.finish();
}

void Connection::close() {
  const std::lock_guard guard(mutex_);
  connected_ = false;
  socket_.close();
}

std::uint32_t Connection::new_object_number() {
  const std::lock_guard guard(mutex_);
  return ++objects_;
}

}  // namespace kova::sample
