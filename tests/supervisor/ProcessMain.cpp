// The tests, or one of the processes that they need.

#include <gtest/gtest.h>

#include "ProcessRoles.h"
#include "SystemRoles.h"

int main(int argc, char** argv) {
  const tolm::test::Arguments arguments = tolm::test::ProgramArguments(argc, argv);
  if (!arguments.empty() && arguments.front() == "--role") {
    return tolm::test::RunAsRole({arguments.begin() + 1, arguments.end()});
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
