// Shared GoogleTest entry point: death tests re-execute the binary ("threadsafe" style) because
// the library starts threads, which a forked child could not use safely.
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}
