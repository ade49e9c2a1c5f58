// The turns in which the processes of an account write a file of records.
#pragma once

#include <cstdint>

#include "platform/win32/handle.h"

namespace kova {

/// A process's turn to write a file: a named mutex of that file, visible on the whole machine where
/// that is allowed, held for the scope. Waits at most `wait_ms` milliseconds; without a mutex, or
/// when it is not free in time, there is no turn, and the caller goes on without one. A path of
/// null stands for what has no turns.
class RecordTurn {
 public:
  RecordTurn(const wchar_t* path, std::uint32_t wait_ms);
  ~RecordTurn();
  RecordTurn(const RecordTurn&) = delete;
  RecordTurn& operator=(const RecordTurn&) = delete;

  /// Whether the holder before ended without giving the turn back. The system frees the mutex of a
  /// process that is killed before it closes the process's files.
  [[nodiscard]] bool was_abandoned() const { return abandoned_; }

 private:
  Handle mutex_;
  bool held_ = false;
  bool abandoned_ = false;
};

}  // namespace kova
