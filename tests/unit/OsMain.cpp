// The tests, or one of the processes that they need.

#include <gtest/gtest.h>

#include "OsRoles.h"
#include "supervisor/SystemRoles.h"

int main(int argc, char** argv) {
  const tolm::test::Arguments arguments = tolm::test::ProgramArguments(argc, argv);
  if (!arguments.empty() && arguments.front() == "--role") {
    return tolm::test::RunAsRole({arguments.begin() + 1, arguments.end()}, tolm::test::OsRoles());
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
