// A locale whose numbers have a decimal comma.
#pragma once

#include "support/temporary_directory.h"

namespace kova::testing {

/// Sets LC_NUMERIC to such a locale; back to what it was at destruction.
class DecimalComma {
 public:
  DecimalComma();
  ~DecimalComma();
  DecimalComma(const DecimalComma&) = delete;
  DecimalComma& operator=(const DecimalComma&) = delete;

  /// Whether the system could be brought to it.
  [[nodiscard]] bool is_set() const { return set_; }

 private:
  TemporaryDirectory folder_;
  bool set_;
};

}  // namespace kova::testing
