// Session ids in urls between real processes: none is in what any of them logs.

#include <gmock/gmock.h>

#include <string>
#include <string_view>

#include "PluginBehaviours.h"
#include "SystemTest.h"

namespace tolm::test {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;

std::string WithSecret(const std::string& url) {
  return url + "?x=1&SID=" + kSecret + "&sid=" + kSecret;
}

/// Bodies are shown as they are, those of registrations too: nothing else of a line may show a session id.
class Secrets : public SystemTest {
 protected:
  void SetUp() override {
    TolmLPCFrame::SetLogLevel(TolmLPCFrame::kLogTrace);
    StartFrame({"a", "b"});
    a_ = &StartPlugin("a");
    b_ = &StartPlugin("b");
  }
  void ExpectNoSecret() {
    EXPECT_THAT(LogWithoutBodies(), Not(HasSubstr(kSecret)));
    EXPECT_THAT(a_->Output(), Not(HasSubstr(kSecret)));
    EXPECT_THAT(b_->Output(), Not(HasSubstr(kSecret)));
  }
  std::string LogWithoutBodies() const {
    constexpr std::string_view kFront = "lpc_body =[";
    std::string log = host_.LogText();
    for (std::size_t at = log.find(kFront); at != std::string::npos; at = log.find(kFront, at)) {
      at += kFront.size();
      log.erase(at, log.find("], mt_method[", at) - at);
    }
    return log;
  }

  ChildProcess* a_ = nullptr;
  ChildProcess* b_ = nullptr;
};

TEST_F(Secrets, OfCallsThatAreAnsweredAndOfThoseThatAreNotAreNotLogged) {
  EXPECT_TRUE(Call(Request(WithSecret("/a/echo"), "text")).came);
  EXPECT_FALSE(Call(Request(WithSecret("/nobody"))).came);
  EXPECT_FALSE(Call(Request(WithSecret("/a/throw"))).came);
  EXPECT_TRUE(a_->WaitForLine("the handler of url [/a/throw"));
  TolmLPCFrame::LPCData direct = Request(WithSecret("/a/unknown"));
  direct.dst_id = "a";
  EXPECT_FALSE(Call(direct).came);
  EXPECT_FALSE(Call(Request(WithSecret("/a/block")), 100ms).came);
  EXPECT_TRUE(host_.WaitForLog("no answer of peer [a] for url [/a/block?x=1&SID=****"));
  direct.url = "/a/unknown/SID=" + std::string(kSecret);
  EXPECT_FALSE(Call(direct).came);
  ExpectNoSecret();
}

TEST_F(Secrets, OfMessagesWithoutAnAnswerAreNotLogged) {
  std::uint64_t id = 0;
  EXPECT_TRUE(TolmLPCFrame::AsyncSend(id, Request(WithSecret("/a/echo"), "later")));
  EXPECT_TRUE(host_.WaitFor([&](const HostSide::Event& event) { return event.lpc_data.msg_id == id; }));
  EXPECT_TRUE(Send(Notification(WithSecret("/a/hear"), "x")));
  EXPECT_TRUE(a_->WaitForLine("heard x"));
  EXPECT_FALSE(TolmLPCFrame::AsyncSend(id, Request(WithSecret("/nobody"))));
  EXPECT_FALSE(Send(Notification(WithSecret("/nobody"))));
  TolmLPCFrame::RegisterUrl({WithSecret("/host"), "/host/SID=" + std::string(kSecret)});
  KillPlugin(*a_, "a");
  EXPECT_FALSE(Call(Request(WithSecret("/a/echo"))).came);
  ExpectNoSecret();
}

TEST_F(Secrets, OfCallsBetweenPluginsAreNotLogged) {
  const auto relay = [](const std::string& url) {
    TolmLPCFrame::LPCData request = Request("/a/relay");
    // In a header, which no log shows, since the body of the request is logged as it is.
    request.http_headers["X-Url"] = url;
    request.http_headers["X-Time-Out"] = "300";
    return Call(request);
  };
  EXPECT_TRUE(relay(WithSecret("/b/echo")).came);
  EXPECT_TRUE(relay("/b/echo/../SID=" + std::string(kSecret)).came) << "nobody serves it: the host is asked";
  EXPECT_TRUE(relay(WithSecret("/b/throw")).came);
  EXPECT_TRUE(relay(WithSecret("/b/block")).came);
  EXPECT_TRUE(relay(WithSecret("/host/unanswered")).came);
  ExpectNoSecret();
}

TEST_F(Secrets, OfUrlsThatPluginsServeAreNotLogged) {
  EXPECT_TRUE(host_.WaitForLog("SupportUrlList = /a/sid=****"));
  EXPECT_TRUE(host_.WaitForLog("Plugin[b] add url = [/b/sid=****"));
  EXPECT_TRUE(Call(Request("/a/SID=" + std::string(kSecret))).came) << "it is served all the same";
  ExpectNoSecret();
}

}  // namespace
}  // namespace tolm::test
