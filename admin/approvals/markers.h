// The replay markers in a state directory: one file for each token that was used.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "admin/common/times.h"

namespace kova::admin {

struct Marker {
  std::string nonce;  ///< lower-case
  std::string name;   ///< the file's
  UnixMs time;        ///< when it was made
};

/// The markers of a directory in the order of their times; other files are passed over. Throws
/// Refusal when the directory cannot be read.
[[nodiscard]] std::vector<Marker> read_markers(const std::string& directory);

/// Removes one. Throws Refusal.
void remove_marker(const std::string& directory, const Marker& marker);

/// A text with its ASCII letters in lower case: the form in which nonces are compared.
[[nodiscard]] std::string lower_case(std::string_view text);

}  // namespace kova::admin
