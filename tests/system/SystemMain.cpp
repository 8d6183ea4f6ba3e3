// The tests, or one of the processes that they need.

#include <gtest/gtest.h>

#include <string_view>

#include "HostBehaviours.h"
#include "PluginBehaviours.h"

int main(int argc, char** argv) {
  const std::string_view first = argc > 1 ? argv[1] : "";
  if (first == "--as-plugin") return tolm::test::RunAsPlugin(argc - 2, argv + 2);
  if (first == "--as-host") return tolm::test::RunAsHost(argc - 2, argv + 2);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
