// A process that has no descriptors left; only here can a process limit its own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <list>
#include <set>
#include <string>

#include "ServerEnd.h"
#include "ServerPort.h"
#include "support/OwnResources.h"
#include "support/Rows.h"
#include "support/posix/Lookout.h"

namespace tolm::test {
namespace {

using namespace Tolm::Net;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

void IgnoreRequest(std::int32_t, const HttpServerRecv&) {}

// Everything that happens without descriptors has happened with them before: a checked build looks at a
// type for the first time by means of a descriptor.
void ServeOnce() {
  ServerEnd server;
  auto client = RawClient::Upgraded(server.port());
  client.Send(Text("in") + CloseBytes(1000));
  std::int32_t handle = -1;
  const int result = CHttpServer::StartHttpServer(handle, "127.0.0.1", server.port(), IgnoreRequest);
  if (!server.WaitStory("handshake, text 'in', close") || result != kNetCannotListen) std::exit(10);
}

// In a process of its own, since it uses up the descriptors: whoever waits is served once there are some,
// and meanwhile the server does not spin. The exit code is 0 when that is so.
void UseUpDescriptors() {
  ServeOnce();
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = 64;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  ServerEnd server;
  auto before = RawClient::Upgraded(server.port());
  std::list<RawClient> crowd;
  // Each takes one descriptor here and one at the server; the last ones connect to the backlog only.
  do {
    crowd.emplace_back(server.port());
  } while (crowd.back().connected());
  const auto short_of = [&] { return server.log().LinesOf("RestFromAccepting").size() == 1; };
  crowd.pop_back();
  if (!WaitFor(short_of, kLong)) std::exit(1);
  const double used_before = ProcessorSeconds();
  const auto until = Clock::now() + milliseconds(500);
  WaitFor([&] { return Clock::now() >= until; });
  if (ProcessorSeconds() - used_before > 0.25) std::exit(2);
  // Who is in is served.
  before.Send(Text("in"));
  if (!server.WaitCount(kWebsocketText, 1)) std::exit(3);
  while (crowd.size() > 5) crowd.pop_front();
  // These were not accepted so far.
  crowd.back().Send(UpgradeRequestBytes());
  if (!crowd.back().ReadHead().starts_with("HTTP/1.1 101 ")) std::exit(4);
  if (server.Stop() != kNetOk) std::exit(5);
  std::exit(0);
}

TEST(NetDescriptors, UsedUpDoNotMakeAcceptingSpinAndComeBack) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(UseUpDescriptors(), testing::ExitedWithCode(0), "");
}

TEST(NetDescriptors, NoneLeftForAServerIsCannotListen) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ServeOnce();
        const LogCapture log;
        const std::uint16_t port = ServerPort();
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        bool started = false;
        // One descriptor more each time: every one that a start asks for is missing once.
        for (rlim_t count = 3; count < 40 && !started; ++count) {
          limit.rlim_cur = count;
          ::setrlimit(RLIMIT_NOFILE, &limit);
          std::int32_t handle = -1;
          const int result = CHttpServer::StartHttpServer(handle, "127.0.0.1", port, IgnoreRequest);
          started = result == kNetOk;
          if (!started && (result != kNetCannotListen || handle != -1)) std::exit(1);
          if (started && CHttpServer::StopServer(handle) != kNetOk) std::exit(2);
        }
        std::exit(started ? 0 : 3);
      },
      testing::ExitedWithCode(0), "");
}

TEST(NetDescriptors, ThatAChildInheritsAreSeenByALookout) {
  Lookout lookout;
  const int file = ::open("/dev/zero", O_RDONLY);  // without O_CLOEXEC
  const int looks = lookout.looks();
  ASSERT_TRUE(WaitFor([&] { return lookout.looks() > looks + 1; }));
  EXPECT_EQ(lookout.Finish(), std::set<std::string>{"/dev/zero"});
  ::close(file);
}

TEST(NetDescriptors, OfTheServerAreKeptFromWhatTheHostStarts) {
  Rows rows("inherited");
  Lookout lookout;
  for (int life = 0; life < 3; ++life) {
    ServerEnd server;
    for (int i = 0; i < 20; ++i) {
      auto guard = RawClient::Upgraded(server.port());
      guard.Send(Text("in") + CloseBytes(1000));
      EXPECT_TRUE(guard.ReadToEnd());
    }
  }
  std::set<std::string> found = lookout.Finish();
  EXPECT_GT(lookout.looks(), 20);
  rows.Expect(std::set<std::string>{}, found, "descriptors that a child of the host inherits");
}

}  // namespace
}  // namespace tolm::test
