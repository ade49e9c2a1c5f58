// What one policy allows more or less than another.
#pragma once

#include <string>
#include <vector>

#include "admin/common/json_output.h"
#include "policy/policy.h"

namespace kova::admin {

/// A flag's or number's new value, or one entry of a list.
struct Shift {
  std::string key;
  Json value;
  std::string sentence;
};

struct Change {
  std::string key;
  std::string before;
  std::string after;
};

struct PolicyDifferences {
  std::vector<Shift> widened;
  std::vector<Shift> narrowed;
  std::vector<Change> changed;  ///< identities and the state directory: neither wider nor narrower

  [[nodiscard]] bool none() const { return widened.empty() && narrowed.empty() && changed.empty(); }
};

/// Compares key by key; lists ignoring order and ASCII case.
[[nodiscard]] PolicyDifferences differences_of(const McpPolicy& before, const McpPolicy& after);

}  // namespace kova::admin
