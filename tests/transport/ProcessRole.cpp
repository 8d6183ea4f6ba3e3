#include "ProcessRole.h"

#include <gtest/gtest.h>

#include <iostream>
#include <string_view>

#include "FrameEnd.h"
#include "TolmLPCServer/LpcClient.h"
#include "TolmLPCServer/LpcServer.h"

namespace tolm::test {
namespace {

constexpr char kReady[] = "the role is played";

// Until its input ends.
int PlayUntilNobodyWatches() {
  std::cout << kReady << std::endl;
  while (std::cin.get() != std::char_traits<char>::eof()) {
  }
  return 0;
}

int HoldEndpoint(const char* name) {
  lpcserver::Init();
  if (!lpcserver::StartListen(name)) return 2;
  return PlayUntilNobodyWatches();
}

int BeSilentPlugin(const char* id) {
  lpcclient::Settings settings;
  settings.id = id;
  settings.endpoint = kEndpoint;
  settings.on_message = [](tag_LPCCallBackData&&, const lpcclient::InboundInfo&) {};
  lpcclient::CLpcClient client(settings);
  if (!client.Start() || !client.WaitConnected(kLong)) return 2;
  return PlayUntilNobodyWatches();
}

}  // namespace

ProcessRole::ProcessRole(const std::string& role, const std::string& argument)
    : process_({ThisProgram().string(), role, argument}), ready_(process_.WaitForLine(kReady).has_value()) {}

void ProcessRole::Kill() {
  process_.Kill();
  EXPECT_TRUE(process_.WaitExit()) << "it was killed and runs";
}

}  // namespace tolm::test

int main(int argc, char** argv) {
  if (argc == 3 && argv[1] == std::string_view(tolm::test::ProcessRole::kHoldEndpoint)) {
    return tolm::test::HoldEndpoint(argv[2]);
  }
  if (argc == 3 && argv[1] == std::string_view(tolm::test::ProcessRole::kSilentPlugin)) {
    return tolm::test::BeSilentPlugin(argv[2]);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
