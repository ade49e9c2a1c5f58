// How everything in sample/ reports that something failed.
#pragma once

#include <stdexcept>

namespace kova::sample {

/// Holds the message for the user or the client. Thrown where the failure is found; each program
/// catches it in one place.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace kova::sample
