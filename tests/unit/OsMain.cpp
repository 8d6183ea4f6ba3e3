// The tests, or a process that one of them needs.

#include <gtest/gtest.h>

#include <string_view>

#include "os/HiddenProcess.h"

int main(int argc, char** argv) {
  if (argc == 3 && std::string_view(argv[1]) == "--run-removal") {
    os::RunRemovalCommand(argv[2]);
    return 0;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
