// The folder in which sockets lie, and what is left in it.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "FrameEnd.h"
#include "ProcessRole.h"
#include "TolmLPCServer/LpcServer.h"
#include "support/LogCapture.h"
#include "support/TempDirectory.h"

namespace tolm::test {
namespace {

class EndpointFolder : public testing::Test {
 protected:
  EndpointFolder() { EXPECT_TRUE(lpcserver::Init()); }
  ~EndpointFolder() override { lpcserver::Uninit(); }

  const RuntimeDirectory directory_;
};

TEST_F(EndpointFolder, ThatIsAFileIsAFailureWithALine) {
  std::ofstream(directory_.endpoints()) << "not a folder";
  LogCapture log(5);
  EXPECT_FALSE(lpcserver::StartListen(kEndpoint));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kEndpointFailed);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_NE(log.Lines()[0].text.find("is not a directory"), std::string::npos) << log.Lines()[0];
}

TEST_F(EndpointFolder, ThatOthersMayEnterIsAFailureWithALine) {
  using std::filesystem::perms;
  std::filesystem::create_directory(directory_.endpoints());
  std::filesystem::permissions(directory_.endpoints(), perms(0755));
  LogCapture log(5);
  EXPECT_FALSE(lpcserver::StartListen(kEndpoint));
  EXPECT_EQ(lpcserver::GetLPCLastError(), lpc::kEndpointFailed);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_NE(log.Lines()[0].text.find("may be entered by other users"), std::string::npos) << log.Lines()[0];
  std::filesystem::permissions(directory_.endpoints(), perms(0700));
  EXPECT_TRUE(lpcserver::StartListen(kEndpoint)) << "a failure leaves nothing behind";
}

TEST_F(EndpointFolder, KeepsTheSocketOfAKilledProcessUntilTheNextOneListens) {
  const auto socket = directory_.endpoints() / "frame.sock";
  ProcessRole holder(ProcessRole::kHoldEndpoint, kEndpoint);
  ASSERT_TRUE(holder.ready());
  holder.Kill();
  EXPECT_TRUE(std::filesystem::exists(socket)) << "it had no chance to clean up";
  EXPECT_TRUE(lpcserver::StartListen(kEndpoint));
  EXPECT_TRUE(lpcserver::StopListen());
  EXPECT_FALSE(std::filesystem::exists(socket));
}

}  // namespace
}  // namespace tolm::test
