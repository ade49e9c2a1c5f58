// What secrets leave on the stack, judged on the code that is shipped: the product's own objects,
// at its optimisation, linked like it, without a sanitizer, and bound at start. The last copy of
// bytes leaves some of them in the vector registers. The thread sanitizer's runtime saves these on
// the stack whenever its trace buffer is full, and so does whatever binds a call at its first use:
// that depends on the processor and the moment, and is no doing of the product.
#include <gtest/gtest.h>

#include "wiping/bound_at_start.h"

int main(int count, char** arguments) {
  kova::testing::ensure_bound_at_start(arguments);
  ::testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
