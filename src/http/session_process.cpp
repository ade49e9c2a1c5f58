#include "http/session_process.h"

#include <cstring>

#include "base/hex.h"
#include "base/secret.h"
#include "base/text.h"
#include "platform/crypto.h"

namespace kova {

namespace {

constexpr std::uint32_t kEndGraceMs = 2000;
constexpr std::uint32_t kEndedExitCode = 0;

/// Adds to a reply without the carriage returns; false when it would become too long.
bool append_to_reply(std::string_view piece, char* reply, std::size_t& length) {
  while (!piece.empty()) {
    const std::string_view run = slice(piece, 0, piece.find('\r'));
    if (run.size() > kReplyLineLimit - length) return false;
    std::memcpy(reply + length, run.data(), run.size());
    length += run.size();
    piece = slice(piece, run.size() + 1);
  }
  return true;
}

}  // namespace

bool SessionProcess::start(ChildStarter& starter) {
  return draw_id() && starter.start(child_);
}

bool SessionProcess::draw_id() {
  std::uint8_t bytes[(kSessionIdCapacity - 1) / 2];
  const WipeGuard guard(bytes);
  if (!random_bytes(bytes, sizeof bytes)) return false;
  write_hex(bytes, id_);
  return true;
}

bool SessionProcess::write(std::string_view message) {
  const MutexGuard guard(writing_);
  return child_.write_input(message);
}

bool SessionProcess::fill_block() {
  begin_ = 0;
  end_ = child_.read_output(block_, sizeof block_);
  return end_ > 0;
}

bool SessionProcess::read_line(char* line, std::size_t& length) {
  length = 0;
  for (;;) {
    if (begin_ == end_ && !fill_block()) return false;
    const std::string_view rest(block_ + begin_, end_ - begin_);
    const std::size_t feed = rest.find('\n');
    const std::string_view piece = slice(rest, 0, feed);
    if (!append_to_reply(piece, line, length)) return false;
    begin_ += piece.size();
    if (feed == std::string_view::npos) continue;
    ++begin_;
    return length > 0;
  }
}

bool SessionProcess::has_ended() {
  return child_.wait_within(0);
}

void SessionProcess::terminate() {
  child_.terminate(kEndedExitCode);
}

void SessionProcess::finish() {
  if (child_.wait_within(kEndGraceMs)) {
    child_.collect();
  } else {
    child_.abandon();
  }
  wipe(id_, sizeof id_);
  begin_ = 0;
  end_ = 0;
}

}  // namespace kova
