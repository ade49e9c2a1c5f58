#include "kovadll/connection.h"

#include "base/secret.h"

namespace kova::sample {

namespace {

constexpr std::uint32_t kConnectTimeoutMs = 3000;
constexpr const char* kLost = "connection to the engine was lost";

void require(bool connected) {
  if (!connected) throw Failure(kLost);
}

// The failure that a refusal tells.
Failure refusal(std::string_view payload) {
  try {
    return Failure("the engine refused: " + std::string(wire::PayloadReader(payload).text()));
  } catch (const wire::Malformed&) {
    return Failure(kLost);
  }
}

/// Overwrites a request at the end of the scope: it may hold a password.
struct RequestWiper {
  wire::FrameWriter& request;
  ~RequestWiper() { request.wipe(); }
};

}  // namespace

Connection::Connection(const char* host, const char* port) {
  connect(host, port);
  greet();
}

void Connection::connect(const char* host, const char* port) {
  AddressList addresses;
  const void* address = addresses.resolve(host, port) ? addresses.first() : nullptr;
  while (!connected_ && address != nullptr) {
    connected_ = socket_.connect(address, kConnectTimeoutMs);
    address = AddressList::next(address);
  }
}

void Connection::greet() {
  wire::FrameWriter hello(wire::Type::kHello);
  hello.u32(wire::kMagic);
  hello.u16(wire::kVersion);
  const Payload payload = exchange(hello, wire::Type::kWelcome);
  require(wire::PayloadReader({payload.data(), payload.size()}).u16() == wire::kVersion);
}

Connection::Payload Connection::exchange(wire::FrameWriter& request, wire::Type expected) {
  const RequestWiper wiper{request};
  const std::lock_guard guard(mutex_);
  require(connected_);
  connected_ = false;
  try {
    send(request.finish());
    Payload payload = receive(expected);
    connected_ = true;
    return payload;
  } catch (const Failure&) {
    socket_.close();
    throw;
  }
}

void Connection::send(std::string_view frame) {
  if (releases_.empty()) return require(socket_.send_all(frame.data(), frame.size()));
  releases_ += frame;
  const bool sent = socket_.send_all(releases_.data(), releases_.size());
  wipe(releases_.data(), releases_.size());
  releases_.clear();
  require(sent);
}

Connection::Payload Connection::receive(wire::Type expected) {
  char header_bytes[wire::kHeaderSize];
  receive_exactly(header_bytes, sizeof header_bytes);
  const wire::Header header = wire::decode_header(header_bytes);
  require(header.size <= wire::kReplyLimit);
  Payload payload(header.size);
  receive_exactly(payload.data(), payload.size());
  if (header.type == wire::Type::kRefused) throw refusal({payload.data(), payload.size()});
  require(header.type == expected);
  return payload;
}

void Connection::receive_exactly(char* data, std::size_t size) {
  while (size > 0) {
    const std::size_t got = socket_.receive(data, size);
    require(got > 0);
    data += got;
    size -= got;
  }
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
