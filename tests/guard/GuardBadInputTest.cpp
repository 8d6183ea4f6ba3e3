#include <cstdint>
#include <string>

#include "GuardScene.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kQuestion = Asks("GetMianProcessPath", "g");

/// What a guard should not send, and that it harms nobody.
class GuardBadInput : public GuardTest {
 protected:
  /// The only line that these leave is that they came.
  void ExpectIgnored(const std::string& raw) {
    log_.Clear();
    Endpoint().DealMessage(5, raw);
    ASSERT_EQ(log_.Lines().size(), 1u) << raw.substr(0, 80);
    EXPECT_EQ(log_.Lines()[0].level, 3) << raw.substr(0, 80);
    EXPECT_THAT(net_.Sent(), IsEmpty()) << raw.substr(0, 80);
  }
  void ExpectStillAnswering() {
    const std::size_t before = net_.Sent().size();
    Endpoint().DealMessage(5, kQuestion);
    EXPECT_EQ(net_.Sent().size(), before + 1);
  }
};

TEST_F(GuardBadInput, WhatIsNotJsonIsLoggedAndDropped) {
  for (const std::string raw : {"", " ", "{", "}", "{\"guid\":}", "hello", "{} {}", "\xFF\xFE", "{'a':1}",
                                "{\"requestData\":{\"method\":\"GetMianProcessPath\"}"}) {
    log_.Clear();
    Endpoint().DealMessage(5, raw);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(Line(4, "WebSocket", "CTolmGuardConnectManager::DealMessage", "set_str failed.")))
        << raw;
  }
  EXPECT_THAT(net_.Sent(), IsEmpty());
  ExpectStillAnswering();
}

TEST_F(GuardBadInput, ValuesThatAreNoObjectsAreIgnored) {
  for (const char* raw : {"5", "-1.5e3", "\"GetMianProcessPath\"", "null", "true", "[]", "[{}]", "{}"}) {
    ExpectIgnored(raw);
  }
  ExpectStillAnswering();
}

TEST_F(GuardBadInput, MembersOfOtherTypesCountAsMissing) {
  for (const char* raw :
       {R"({"requestData":{"method":5}})", R"({"requestData":{"method":["GetMianProcessPath"]}})",
        R"({"requestData":{"method":null}})", R"({"requestData":"GetMianProcessPath"})",
        R"({"requestData":[{"method":"GetMianProcessPath"}]})", R"({"method":"GetMianProcessPath"})"}) {
    ExpectIgnored(raw);
  }
  Endpoint().DealMessage(5, R"({"guid":17,"requestData":{"method":"GetProcessInitStateList"}})");
  EXPECT_EQ(GuidOf(OnlySent().data), "");
}

TEST_F(GuardBadInput, DeepNestingIsIgnoredLikeAnyMessageWithoutAMethod) {
  log_.SetLevel(4);
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  Endpoint().DealMessage(5, deep);
  std::string objects;
  for (int i = 0; i < 100000; ++i) objects += "{\"requestData\":";
  Endpoint().DealMessage(5, objects + "1" + std::string(100000, '}'));
  EXPECT_THAT(log_.Lines(), IsEmpty());
  Endpoint().DealMessage(5, std::string(100000, '['));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Line(4, "WebSocket", "CTolmGuardConnectManager::DealMessage", "set_str failed.")));
  ExpectStillAnswering();
}

TEST_F(GuardBadInput, AGuidOfAnyBytesIsAnsweredAsItCame) {
  Endpoint().DealMessage(5, Asks("GetProcessInitStateList", "\\u0001\xC3\xA4\\\"\\\\]["));
  EXPECT_EQ(GuidOf(OnlySent().data), "\x01\xC3\xA4\"\\][");
}

// Events, as the server delivers them.

/// With the frame up and a guard connected.
class GuardBadEvents : public GuardTest {
 protected:
  GuardBadEvents() {
    StartWithPort();
    Connect(5);
    FromNowOn();
  }

  static LogLine CallbackError(const std::string& text) {
    return Error("CTolmGuardConnectManager::WebsocketTolmGuardServerMsgCallback", text);
  }
  void ExpectDropped(std::int32_t handle, const Tolm::Net::WebsocketRecv& recv, const std::string& text) {
    FromNowOn();
    net_.Deliver(handle, recv);
    EXPECT_THAT(log_.Lines(), ElementsAre(CallbackError(text)));
    EXPECT_THAT(Journal::Of("pool.Post"), IsEmpty());
  }
};

TEST_F(GuardBadEvents, ANegativeHandleIsDroppedWhateverElseIsWrong) {
  ExpectDropped(-1, {true, 1, 3, 2, "{}"}, "handle error, handle = -1, code = 3, len = 2, type = 1");
  ExpectDropped(-7, {false, 0, 0, 0, nullptr}, "handle error, handle = -7, code = 0, len = 0, type = 0");
  ExpectDropped(-1, {true, 12, 0, 0, nullptr}, "handle error, handle = -1, code = 0, len = 0, type = 12");
}

TEST_F(GuardBadEvents, BinaryFragmentsAndContinuationsAreDropped) {
  ExpectDropped(5, {true, 2, 3, 2, "{}"}, "msg_type error, handle = 5, status = 3, len = 2, type = 2");
  ExpectDropped(5, {true, 0, 0, 2, "{}"}, "msg_type error, handle = 5, status = 0, len = 2, type = 0");
  ExpectDropped(5, {false, 1, 0, 2, "{}"}, "msg_type error, handle = 5, status = 0, len = 2, type = 1");
  ExpectDropped(5, {false, 8, 0, 0, nullptr}, "msg_type error, handle = 5, status = 0, len = 0, type = 8");
}

TEST_F(GuardBadEvents, AFragmentedMessageIsNeverPutTogether) {
  const std::string text = kQuestion;
  net_.Text(5, text.substr(0, 10), false);
  net_.Deliver(5, {true, 0, 0, static_cast<std::uint32_t>(text.size() - 10), text.data() + 10});
  EXPECT_EQ(LinesOf("WebsocketTolmGuardServerMsgCallback").size(), 2u);
  EXPECT_THAT(Journal::Of("pool.Post"), IsEmpty());
}

TEST_F(GuardBadEvents, TextsWithoutBytesAreDropped) {
  ExpectDropped(5, {true, 1, 3, 0, "x"}, "data error, handle = 5, len = 0, status = 3, fin = 1");
  ExpectDropped(5, {true, 1, 0, 4, nullptr}, "data error, handle = 5, len = 4, status = 0, fin = 1");
}

TEST_F(GuardBadEvents, ATextOfSixtyMebibytesIsTakenAndAByteMoreIsNot) {
  log_.SetLevel(5);
  std::string text = kQuestion;
  text.resize(62914560, ' ');
  net_.Text(5, text);
  EXPECT_TRUE(WaitFor([&] { return net_.Sent().size() == 1; }));
  text += ' ';
  ExpectDropped(5, {true, 1, 0, 62914561, text.data()},
                "data error, handle = 5, len = 62914561, status = 0, fin = 1");
  ExpectDropped(5, {true, 1, 0, 0xFFFFFFFF, text.data()},
                "data error, handle = 5, len = -1, status = 0, fin = 1");
}

TEST_F(GuardBadEvents, OtherTypesArePostedAndThenRefused) {
  net_.Deliver(5, {true, 9, 3, 4, "ping"});
  EXPECT_TRUE(WaitFor([&] {
    return log_.Has(Error("CTolmGuardConnectManager::TolmGuardOnRawMsgEIT", "msg type error, type is 9"));
  }));
  EXPECT_TRUE(log_.Has(Info("CTolmGuardConnectManager::WebsocketTolmGuardServerMsgCallback",
                            "websocket commd, handle = 5, msg_type = 9, status_code = 3, is_fin = 1, "
                            "data_len = 4")));
  EXPECT_EQ(Endpoint().GetSessionId(), 5);
}

TEST_F(GuardBadEvents, AnEventWithoutATypeIsLoggedAsSuch) {
  net_.Deliver(6, {true, -1, 0, 0, nullptr});
  EXPECT_TRUE(WaitFor([&] {
    return log_.Has(Error("CTolmGuardConnectManager::TolmGuardOnRawMsgEIT", "recv no_type, socket id : 6"));
  }));
}

TEST_F(GuardBadEvents, AllOfThisHarmsNoGuard) {
  for (const char* raw : {"{", "5", "null", "{}"}) net_.Text(5, raw);
  net_.Deliver(5, {true, 77, 0, 0, nullptr});
  net_.Deliver(-5, {true, 1, 0, 1, "x"});
  net_.Text(5, kQuestion);
  EXPECT_TRUE(WaitFor([&] { return net_.Sent().size() == 1; }));
}

}  // namespace
}  // namespace tolm::test
