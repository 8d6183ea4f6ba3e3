// The tests, or one of the processes that they need.

#include <gtest/gtest.h>

#include <string_view>

#include "ProcessRoles.h"

int main(int argc, char** argv) {
  if (argc > 1 && std::string_view(argv[1]) == "--role") return tolm::test::RunAsRole(argc - 2, argv + 2);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
