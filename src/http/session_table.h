// The sessions of the HTTP listener, shared by all connection threads.
//
//   SessionTable::Hold session = table.find(id);          // or table.create()
//   if (!session) return kUnknownSession;
//   switch (table.ask(session, message, reply, length)) ...   // the hold ends with its scope
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "http/child_starter.h"
#include "http/session_process.h"
#include "platform/thread.h"

namespace kova {

inline constexpr std::size_t kSessionLimit = 16;

/// How an exchange with a session has ended. After the failures the session has ended too.
enum class Exchange {
  kDone,
  kSessionGone,  ///< it had ended before anything was written
  kInputFailed,  ///< the message was not written
  kReplyFailed,  ///< no reply line came
};

/// Sixteen slots, used by all connection threads.
///
/// A slot goes free -> starting -> active -> ending -> free. A thread that uses a session has a
/// hold on its slot. Closing a session makes the slot ending (find no longer returns it),
/// terminates the child, so that reads and writes under way return, waits until the other holds are
/// given up, and frees the slot. The mutex is not held while a child starts, ends, is written to or
/// read from.
///
/// Exchanges of one session take turns, like numbered tickets: ask draws next_turn, waits until
/// served_turn has reached it, writes, reads the one reply line, and moves served_turn on:
///
///   next_turn 5     A draws 3 (served now), B draws 4 and waits, the next caller draws 5
///   served_turn 3   A has its reply: served_turn 4 wakes B
class SessionTable {
  struct Slot;

 public:
  using Clock = std::uint64_t (*)();

  /// A session that cannot be reused as long as this object holds it.
  class Hold {
   public:
    Hold() = default;
    Hold(SessionTable& table, Slot& slot) : table_(&table), slot_(&slot) {}
    ~Hold() {
      if (slot_ != nullptr) table_->release(*slot_);
    }
    Hold(Hold&& other) noexcept
        : table_(other.table_), slot_(std::exchange(other.slot_, nullptr)) {}
    Hold& operator=(Hold&&) = delete;
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    explicit operator bool() const { return slot_ != nullptr; }
    [[nodiscard]] const char* id() const { return slot_->process.id(); }

   private:
    friend class SessionTable;
    SessionTable* table_ = nullptr;
    Slot* slot_ = nullptr;
  };

  /// `clock` returns milliseconds.
  SessionTable(ChildStarter& starter, Clock clock) : starter_(starter), clock_(clock) {}
  SessionTable(const SessionTable&) = delete;
  SessionTable& operator=(const SessionTable&) = delete;

  /// Ends the sessions that have been idle for more than 900,000 ms or whose child has ended, and
  /// starts one in the lowest free slot. Nothing when all slots are in use or the child cannot be
  /// started.
  [[nodiscard]] Hold create();
  /// The session of that id, or nothing.
  [[nodiscard]] Hold find(std::string_view id);

  /// Writes a message that has no reply.
  [[nodiscard]] Exchange tell(Hold& hold, std::string_view message);
  /// Writes a message and reads one line into `reply`, of kReplyLineLimit bytes; the message may
  /// lie there too. The exchanges of a session follow each other in the order of the calls.
  [[nodiscard]] Exchange ask(Hold& hold, std::string_view message, char* reply,
                             std::size_t& length);

  /// Ends the session, frees its slot and gives the hold up. Does nothing when another thread is
  /// ending the session already.
  void close(Hold& hold);
  void close_all();

 private:
  enum class State { kFree, kStarting, kActive, kEnding };

  struct Slot {
    State state = State::kFree;
    unsigned holds = 0;
    std::uint64_t last_activity_ms = 0;
    // The turns of ask: the next one to be given out, and the one that is served.
    std::uint64_t next_turn = 0;
    std::uint64_t served_turn = 0;
    SessionProcess process;
  };

  void release(Slot& slot);
  void end_unused(std::uint64_t now_ms);
  [[nodiscard]] bool is_unused(Slot& slot, std::uint64_t now_ms);
  [[nodiscard]] Slot* reserve();
  [[nodiscard]] bool wait_for_turn(Slot& slot);
  void end_turn(Slot& slot);
  [[nodiscard]] bool begin_exchange(Slot& slot);
  [[nodiscard]] bool touch(Slot& slot);
  [[nodiscard]] bool begin_ending(Slot& slot);
  void end(Slot& slot, unsigned own_holds);

  ChildStarter& starter_;
  Clock clock_;
  // Guards the slots but for `process`: `state` and `holds` say who may use that.
  Mutex mutex_;
  Condition changed_;
  Slot slots_[kSessionLimit];
};

}  // namespace kova
