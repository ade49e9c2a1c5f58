// The unit test program. Started by the code under test as a child process, with one of the
// arguments of support/child_modes.h, or without any and with its variable set, it plays that child
// instead of running the tests.
#include <gtest/gtest.h>

#include "platform/environment.h"
#include "support/child_modes.h"

int main(int count, char** arguments) {
  kova::testing::end_quietly_after_a_crash();
  if (count == 2) {
    if (const auto mode = kova::testing::find_child_mode(arguments[1])) return mode();
  }
  if (count == 1) {
    const kova::EnvironmentValue name(kova::testing::kProgramMode);
    if (const auto mode = kova::testing::find_child_mode(name.view())) return mode();
  }
  ::testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
