#include <filesystem>
#include <iostream>

#include <gtest/gtest.h>

// The tests replace programs and settings of the root that they run in, so it has to be a private
// one.
int main(int argc, char** argv) {
  if (!std::filesystem::exists("/run/appliance")) {
    std::cerr << "system tests: only in a private appliance: ctest -R system.SUITE\n";
    return 2;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
