// The sessions of the HTTP listener, and who uses them when.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "http/session_process.h"

namespace kova {

inline constexpr std::size_t kSessionLimit = 16;

/// How an exchange with a session has ended. After the failures the session has ended too.
enum class Exchange {
  kDone,
  kSessionGone,   ///< it had ended before anything was written
  kInputFailed,   ///< the message was not written
  kAnswerFailed,  ///< no answer line came
};

/// Sixteen slots, used by all connection threads.
///
/// A thread that uses a session holds it. A session that ends is found no more, its child is
/// terminated, which brings back whoever is in an exchange with it, and its slot is free again once
/// nobody holds it. The table is not locked while a child starts, ends, is written to or read from.
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

  /// `clock` answers milliseconds.
  SessionTable(ChildStarter& starter, Clock clock) : starter_(starter), clock_(clock) {}
  SessionTable(const SessionTable&) = delete;
  SessionTable& operator=(const SessionTable&) = delete;

  /// Ends the sessions that have been idle for more than 900,000 ms or whose child has ended, and
  /// starts one in the lowest free slot. Nothing when all slots are in use or the child cannot be
  /// started.
  [[nodiscard]] Hold create();
  /// The session of that id, or nothing.
  [[nodiscard]] Hold find(std::string_view id);

  /// Writes a message that wants no answer.
  [[nodiscard]] Exchange tell(Hold& hold, std::string_view message);
  /// Writes a message and reads one line into `answer`, of kAnswerLimit bytes; the message may lie
  /// there too. The exchanges of a session follow each other in the order of the calls.
  [[nodiscard]] Exchange ask(Hold& hold, std::string_view message, char* answer,
                             std::size_t& length);

  /// Ends the session, frees its slot and gives the hold up; leaves it to another thread that is
  /// about it.
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
  // Guards everything in the slots but the sessions, and guards starting and ending those.
  Mutex mutex_;
  Condition changed_;
  Slot slots_[kSessionLimit];
};

}  // namespace kova
