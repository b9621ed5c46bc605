#include <gtest/gtest.h>

#include "test_support.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  (void)test_support::enter_private_namespace();  // tests that need it skip themselves without it
  return RUN_ALL_TESTS();
}
