#include <gtest/gtest.h>

#include "test_support.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  (void)test_support::enter_private_namespace();  // without it the tests that need it are skipped
  return RUN_ALL_TESTS();
}
