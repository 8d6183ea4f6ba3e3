// The host and one plugin talk.

#include <gmock/gmock.h>

#include <map>
#include <string>
#include <vector>

#include "SystemTest.h"

namespace tolm::test {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::Pair;
using TolmLPCFrame::LPCData;

class Calls : public SystemTest {
 protected:
  void SetUp() override {
    StartFrame({"a"});
    plugin_ = &StartPlugin("a");
  }
  ChildProcess* plugin_ = nullptr;
};

TEST_F(Calls, CarryHeadersPartsAndABodyOfAnyBytesBothWays) {
  LPCData request = Request("/a/echo?x=1&y=2");
  request.body = std::string("nul \0 and \xff \r\n", 13);
  request.schema = "https";
  request.http_headers = {{"Accept", "text/plain"}, {"X-Empty", ""}, {"X-Text", "äöü \"quoted\""}};
  TolmLPCFrame::MimePart part;
  part.content_type = "image/raw";
  part.disposition = "form-data";
  part.name = "photo";
  part.file_name = "a b.raw";
  part.encoding = "binary";
  part.description = "what it is";
  part.body_data = std::string("\0\1\0\xfe", 4);
  request.http_mime = {part, {}};

  const Answer answer = Call(request);

  ASSERT_TRUE(answer.came) << answer.error;
  EXPECT_EQ(answer.data.msg_type, TolmLPCFrame::kMsgTypeReply);
  EXPECT_EQ(answer.data.src_id, "a");
  EXPECT_EQ(answer.data.body, request.body);
  EXPECT_EQ(answer.data.method, "POST");
  EXPECT_EQ(answer.data.schema, "https");
  for (const auto& header : request.http_headers) {
    EXPECT_THAT(answer.data.http_headers, Contains(Pair(header.first, header.second)));
  }
  EXPECT_THAT(answer.data.http_headers, Contains(Pair("X-Query", "x=1&y=2")));
  EXPECT_THAT(answer.data.http_headers, Contains(Pair("X-Process", std::to_string(plugin_->id()))));
  ASSERT_EQ(answer.data.http_mime.size(), 2u);
  const auto& back = answer.data.http_mime.front();
  EXPECT_EQ(back.content_type, part.content_type);
  EXPECT_EQ(back.disposition, part.disposition);
  EXPECT_EQ(back.name, part.name);
  EXPECT_EQ(back.file_name, part.file_name);
  EXPECT_EQ(back.encoding, part.encoding);
  EXPECT_EQ(back.description, part.description);
  EXPECT_EQ(back.body_data, part.body_data);
}

TEST_F(Calls, CarryABodyOfManyMegabytesBothWays) {
  std::string body(20 << 20, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 31 >> 3);
  const Answer answer = Call(Request("/a/echo", body));
  ASSERT_TRUE(answer.came) << answer.error;
  EXPECT_TRUE(answer.data.body == body);
}

TEST_F(Calls, FindTheUrlInAnyCase) {
  EXPECT_TRUE(Call(Request("/A/Echo")).came);
  int time_out = 0;
  EXPECT_TRUE(TolmLPCFrame::IsPluginURL(time_out, "/a/ECHO?q"));
  EXPECT_EQ(time_out, 7000);
}

TEST_F(Calls, ToAUrlThatNobodyServesFailAtOnce) {
  const Answer answer = Call(Request("/nobody"));
  EXPECT_FALSE(answer.came);
  EXPECT_LT(answer.took, kPatience);
}

TEST_F(Calls, ThatAreNotAnsweredEndWithTheirTimeOut) {
  const Answer answer = Call(Request("/a/block"), 200ms);
  EXPECT_FALSE(answer.came);
  EXPECT_EQ(answer.error, kTimeOut);
  EXPECT_GE(answer.took, 200ms);
  KillPlugin(*plugin_, "a");
}

TEST_F(Calls, WhoseHandlerThrowsFailAtOnce) {
  const Answer answer = Call(Request("/a/throw"));
  EXPECT_FALSE(answer.came);
  EXPECT_EQ(answer.error, kRefused);
  EXPECT_LT(answer.took, kPatience);
}

TEST_F(Calls, WhoseHandlerTakesTheRequestOverAreAnswered) {
  const std::string body(3 << 20, 'm');
  const Answer answer = Call(Request("/a/take", body));
  ASSERT_TRUE(answer.came) << answer.error;
  EXPECT_TRUE(answer.data.body == body);
  EXPECT_TRUE(Call(Request("/a/take?x=1", "again")).came);
}

TEST_F(Calls, WhoseHandlerThrowsWithTheRequestFailAtOnceAndAreNamed) {
  const Answer answer = Call(Request("/a/take-and-throw", "body"));
  EXPECT_FALSE(answer.came);
  EXPECT_EQ(answer.error, kRefused);
  EXPECT_TRUE(plugin_->WaitForLine("the handler of url [/a/take-and-throw] failed: with all of it"));
}

TEST_F(Calls, WithoutWaitingAreAnsweredAtTheCallbackUnderTheirId) {
  std::uint64_t id = 0;
  ASSERT_TRUE(TolmLPCFrame::AsyncSend(id, Request("/a/echo", "later")));
  EXPECT_NE(id, 0u);
  EXPECT_TRUE(host_.WaitFor([&](const HostSide::Event& event) {
    const LPCData& data = event.lpc_data;
    return event.LpcMsgType == TolmLPCFrame::kLpcMsgLpcData && data.msg_type == TolmLPCFrame::kMsgTypeReply &&
           data.msg_id == id && data.src_id == "a" && data.body == "later";
  }));
}

TEST_F(Calls, WithoutWaitingToAPluginThatIsGoneGiveNoId) {
  KillPlugin(*plugin_, "a");
  std::uint64_t id = 7;
  EXPECT_TRUE(TolmLPCFrame::AsyncSend(id, Request("/a/echo")));
  EXPECT_EQ(id, 0u);
  EXPECT_EQ(TolmLPCFrame::GetLPCLastError(), kNoSuchPeer);
}

TEST_F(Calls, OfAPluginReachTheHostWhichAnswersFromItsCallback) {
  StopFrame();
  host_.SetHook([](const HostSide::Event& event) {
    if (event.LpcMsgType != TolmLPCFrame::kLpcMsgLpcData || event.lpc_data.url != "/host/ask?q=1") return;
    LPCData reply;
    reply.msg_type = TolmLPCFrame::kMsgTypeReply;
    reply.dst_id = event.lpc_data.src_id;
    reply.msg_id = event.lpc_data.msg_id;
    reply.body = "the host heard: " + event.lpc_data.body;
    EXPECT_EQ(event.lpc_data.msg_type, TolmLPCFrame::kMsgTypeRequest);
    EXPECT_TRUE(Send(reply));
  });
  StartFrame({"a"});
  StartPlugin("a");
  const Answer answer = Call(Request("/a/relay", "/host/ask?q=1"));
  ASSERT_TRUE(answer.came) << answer.error;
  EXPECT_EQ(answer.data.body, "got the host heard: relayed");
}

TEST_F(Calls, NotificationsReachThePluginAndAreNotToBeAnswered) {
  ASSERT_TRUE(Send(Notification("/a/hear", "something")));
  EXPECT_EQ(plugin_->WaitForLine("heard"), "heard something");
}

TEST_F(Calls, NotificationsReachTheHost) {
  ASSERT_TRUE(Send(Notification("/a/tell", "something")));
  EXPECT_TRUE(host_.WaitFor([](const HostSide::Event& event) {
    return event.LpcMsgType == TolmLPCFrame::kLpcMsgLpcData && event.lpc_data.url == "/host/tell" &&
           event.lpc_data.msg_type == TolmLPCFrame::kMsgTypeNotify && event.lpc_data.body == "something";
  }));
}

TEST_F(Calls, PushesReachTheHostUnderTheirTag) {
  LPCData request = Request("/a/push", "news");
  request.http_headers["X-Tag"] = "tag";
  ASSERT_TRUE(Call(request).came);
  EXPECT_TRUE(host_.WaitFor([](const HostSide::Event& event) {
    return event.LpcMsgType == TolmLPCFrame::kLpcMsgPush && event.lpc_data.push_msg_tag == "tag" &&
           event.lpc_data.src_id == "a" && event.lpc_data.body == "news";
  }));
}

}  // namespace
}  // namespace tolm::test
