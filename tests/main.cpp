#include "tests/support/LeakCheck.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) larkspan::tests::checkForLeaks();
  return RUN_ALL_TESTS();
}
