#include "http/session_table.h"

#include <algorithm>
#include <iterator>

#include "base/secret.h"

namespace kova {

namespace {

constexpr std::uint64_t kIdleLimitMs = 900000;

}  // namespace

SessionTable::Hold SessionTable::create() {
  end_unused(clock_());
  Slot* const slot = reserve();
  if (slot == nullptr) return {};
  const bool started = slot->process.start(starter_);
  const MutexGuard guard(mutex_);
  slot->state = started ? State::kActive : State::kFree;
  changed_.notify_all();
  if (!started) return {};
  slot->last_activity_ms = clock_();
  slot->holds = 1;
  return {*this, *slot};
}

SessionTable::Hold SessionTable::find(std::string_view id) {
  if (id.empty()) return {};
  const MutexGuard guard(mutex_);
  for (Slot& slot : slots_) {
    if (slot.state != State::kActive || !equal_constant_time(slot.process.id(), id)) continue;
    ++slot.holds;
    return {*this, slot};
  }
  return {};
}

Exchange SessionTable::tell(Hold& hold, std::string_view message) {
  Slot& slot = *hold.slot_;
  if (!begin_exchange(slot)) return Exchange::kSessionGone;
  if (slot.process.write(message)) return Exchange::kDone;
  close(hold);
  return Exchange::kInputFailed;
}

Exchange SessionTable::ask(Hold& hold, std::string_view message, char* reply, std::size_t& length) {
  Slot& slot = *hold.slot_;
  if (!wait_for_turn(slot)) return Exchange::kSessionGone;
  Exchange outcome = Exchange::kDone;
  if (!slot.process.write(message)) {
    outcome = Exchange::kInputFailed;
  } else if (!slot.process.read_line(reply, length)) {
    outcome = Exchange::kReplyFailed;
  }
  // After a failure the turn is kept: a later caller must not read the rest of this reply.
  if (outcome == Exchange::kDone) {
    end_turn(slot);
  } else {
    close(hold);
  }
  return outcome;
}

void SessionTable::close(Hold& hold) {
  if (!begin_ending(*hold.slot_)) return;
  end(*hold.slot_, 1);
  hold.slot_ = nullptr;
}

void SessionTable::close_all() {
  for (Slot& slot : slots_) {
    if (begin_ending(slot)) end(slot, 0);
  }
}

void SessionTable::release(Slot& slot) {
  const MutexGuard guard(mutex_);
  --slot.holds;
  if (slot.state == State::kEnding) changed_.notify_all();
}

void SessionTable::end_unused(std::uint64_t now_ms) {
  for (Slot& slot : slots_) {
    mutex_.lock();
    const bool ending = slot.state == State::kActive && is_unused(slot, now_ms);
    if (ending) slot.state = State::kEnding;
    mutex_.unlock();
    if (ending) end(slot, 0);
  }
}

bool SessionTable::is_unused(Slot& slot, std::uint64_t now_ms) {
  // Another thread may have used it after the clock was read.
  const bool is_idle =
      now_ms > slot.last_activity_ms && now_ms - slot.last_activity_ms > kIdleLimitMs;
  return is_idle || slot.process.has_ended();
}

// Without a free slot, waits for the slots that are starting or ending: they may become free.
SessionTable::Slot* SessionTable::reserve() {
  const auto is_free = [](const Slot& slot) { return slot.state == State::kFree; };
  const auto is_changing = [](const Slot& slot) {
    return slot.state == State::kStarting || slot.state == State::kEnding;
  };
  const MutexGuard guard(mutex_);
  for (;;) {
    Slot* const free = std::find_if(std::begin(slots_), std::end(slots_), is_free);
    if (free != std::end(slots_)) {
      free->state = State::kStarting;
      return free;
    }
    if (std::none_of(std::begin(slots_), std::end(slots_), is_changing)) return nullptr;
    changed_.wait(mutex_);
  }
}

// Called with the mutex held; false for a session that ends.
bool SessionTable::touch(Slot& slot) {
  if (slot.state != State::kActive) return false;
  slot.last_activity_ms = clock_();
  return true;
}

bool SessionTable::begin_exchange(Slot& slot) {
  const MutexGuard guard(mutex_);
  return touch(slot);
}

bool SessionTable::wait_for_turn(Slot& slot) {
  const MutexGuard guard(mutex_);
  const std::uint64_t turn = slot.next_turn++;
  // Waiting counts as use, so that the session does not become idle meanwhile.
  if (!touch(slot)) return false;
  while (slot.state == State::kActive && slot.served_turn != turn) changed_.wait(mutex_);
  return touch(slot);
}

void SessionTable::end_turn(Slot& slot) {
  const MutexGuard guard(mutex_);
  ++slot.served_turn;
  changed_.notify_all();
}

bool SessionTable::begin_ending(Slot& slot) {
  const MutexGuard guard(mutex_);
  if (slot.state != State::kActive) return false;
  slot.state = State::kEnding;
  return true;
}

void SessionTable::end(Slot& slot, unsigned own_holds) {
  slot.process.terminate();
  {
    const MutexGuard guard(mutex_);
    changed_.notify_all();
    while (slot.holds > own_holds) changed_.wait(mutex_);
  }
  slot.process.finish();
  const MutexGuard guard(mutex_);
  slot.state = State::kFree;
  slot.holds = 0;
  slot.next_turn = 0;
  slot.served_turn = 0;
  changed_.notify_all();
}

}  // namespace kova
