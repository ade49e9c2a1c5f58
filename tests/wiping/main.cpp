// What secrets leave on the stack, judged on the code that is shipped: the product's own objects,
// at its optimisation, linked like it and bound at start, without a sanitizer. A sanitizer's
// functions and those that bind a call at its first use save vector registers, whose content
// depends on the processor and is no doing of the product.
#include <gtest/gtest.h>

#include "wiping/bound_at_start.h"

int main(int count, char** arguments) {
  kova::testing::ensure_bound_at_start(arguments);
  ::testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
