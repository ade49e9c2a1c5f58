// A client library inside the test program: its results are scripted and its calls are recorded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "db/client_library.h"

namespace kova::testing {

/// A text that the library returns; no value is a null pointer.
using LibraryText = std::optional<std::string>;

/// The result of one statement.
struct FakeResult {
  std::int64_t code = 1;
  LibraryText status = "OK";
  std::vector<LibraryText> columns = {};
  std::vector<std::vector<LibraryText>> rows = {};
  /// The column count that is returned, where it is not the number of columns.
  std::optional<int> field_count = std::nullopt;
};

/// The only client library of the program while it lives; one at a time, used by one thread.
class FakeLibrary {
 public:
  FakeLibrary();
  ~FakeLibrary();
  FakeLibrary(const FakeLibrary&) = delete;
  FakeLibrary& operator=(const FakeLibrary&) = delete;

  /// The loader to give to a session: records "load" and returns the library, null when missing.
  static const ClientLibrary* load();
  /// The twelve operations, unrecorded.
  static const ClientLibrary& operations();

  bool missing = false;
  bool create_fails = false;
  bool start_fails = false;
  bool new_object_fails = false;
  /// The result of every statement without one of its own.
  FakeResult other;
  /// Called when the library is loaded, before anything else is done with it.
  std::function<void()> on_load;
  /// Called for every statement while its text is still there.
  std::function<void(const char* statement)> on_exec;

  /// Sets one statement's result.
  void answer(const std::string& statement, FakeResult result);
  /// Sets the results of several runs of one statement; the last one stays.
  void answer_in_turn(const std::string& statement, std::vector<FakeResult> results);

  /// Every call in order, with what was passed: "create", "exec use default;", "data 2", ...
  [[nodiscard]] const std::vector<std::string>& calls() const { return calls_; }
  /// The statements alone, without "use" and "login".
  [[nodiscard]] std::vector<std::string> statements() const;
  /// How many calls begin with these bytes.
  [[nodiscard]] int count(const std::string& prefix) const;
  void forget_calls() { calls_.clear(); }

  // For the library's operations. They allocate only to record a long statement, before on_exec.
  void record(std::string call) { calls_.push_back(std::move(call)); }
  [[nodiscard]] const FakeResult& run(const char* statement);
  [[nodiscard]] const FakeResult& current() const { return *current_; }
  [[nodiscard]] bool next_row();
  [[nodiscard]] const char* cell(int column) const;

 private:
  struct Answers {
    std::vector<FakeResult> results;
    std::size_t next = 0;
  };

  std::vector<std::string> calls_;
  std::map<std::string, Answers, std::less<>> answers_;
  const FakeResult* current_ = &other;
  std::size_t row_ = 0;  // counted from 1; 0 before the first one
};

}  // namespace kova::testing
