// simdjson's two ways to read a message. Built for the machine at hand, as simdjson's on-demand
// part has no other way to its best instructions.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "json_inputs.h"

namespace kova_bench {

/// The whole message is judged and made into values.
class SimdjsonDom {
 public:
  explicit SimdjsonDom(const std::string& json);
  ~SimdjsonDom();
  [[nodiscard]] bool parse();
  /// The bytes of what the dispatcher reads and of the long text, 0 on failure.
  [[nodiscard]] std::size_t take(const JsonInput& input);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// Values are judged and made when someone looks at them.
class SimdjsonOnDemand {
 public:
  explicit SimdjsonOnDemand(const std::string& json);
  ~SimdjsonOnDemand();
  /// Looks at every value.
  [[nodiscard]] bool parse();
  [[nodiscard]] std::size_t take(const JsonInput& input);
  /// The sum of the vector's elements, NaN on failure.
  [[nodiscard]] double sum();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kova_bench
