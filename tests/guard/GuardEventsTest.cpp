#include <atomic>
#include <string>
#include <thread>

#include "GuardScene.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kCallback[] = "CTolmGuardConnectManager::WebsocketTolmGuardServerMsgCallback";
constexpr char kHandler[] = "CTolmGuardConnectManager::TolmGuardOnRawMsgEIT";
constexpr std::int32_t kClose = Tolm::Net::kWebsocketClose;

LogLine Taken(int type, int socket_id, int error_code) {
  return Info(kHandler, "recv msg_type:" + std::to_string(type) + ", socket id :" +
                            std::to_string(socket_id) + ", error_code = " + std::to_string(error_code));
}

/// What the server delivers, on its way to the pool and there.
class GuardEvents : public GuardTest {};

// The receive callback.

TEST_F(GuardEvents, ATextIsCopiedPostedAndLogged) {
  StartWithPort();
  FromNowOn();
  std::string text = Asks("GetMianProcessPath", "g");
  net_.Text(5, text);
  EXPECT_TRUE(WaitFor([&] { return net_.Sent().size() == 1; }));
  EXPECT_THAT(Journal::Of("pool.Post"), ElementsAre("pool.Post WebSocket another"));
  EXPECT_THAT(LinesOf(kCallback),
              ElementsAre(Info(kCallback, "receive data, handle = 5, status = 0, fin = 1, len = " +
                                              std::to_string(text.size()) + ", data = " + text)));
}

TEST_F(GuardEvents, TheBytesOfATextMayGoOnceTheCallbackHasReturned) {
  // Nothing runs yet: the task waits while its bytes are overwritten.
  std::string text = Asks("GetMianProcessPath", "g");
  text += "behind";
  Endpoint().WebsocketTolmGuardServerMsgCallback(
      5, {true, 1, 0, static_cast<std::uint32_t>(text.size() - 6), text.data()});
  text.assign(text.size(), 'x');
  StartWithPort();
  EXPECT_TRUE(WaitFor([&] { return net_.Sent().size() == 1; }));
}

TEST_F(GuardEvents, TheStatusOfATextIsHandedOnAndChangesNothing) {
  StartWithPort();
  const std::string text = Asks("GetMianProcessPath", "g");
  net_.Deliver(5, {true, 1, 9, static_cast<std::uint32_t>(text.size()), text.data()});
  EXPECT_TRUE(WaitFor([&] { return net_.Sent().size() == 1; }));
  EXPECT_TRUE(log_.Has(Taken(1, 5, 9)));
}

TEST_F(GuardEvents, HandshakeAndCloseArePostedWithoutTextAndLogged) {
  StartWithPort();
  FromNowOn();
  net_.Handshake(5, 3);
  net_.Close(5);
  EXPECT_TRUE(WaitFor([&] { return log_.Has(Taken(kClose, 5, 0)); }));
  EXPECT_THAT(
      LinesOf(kCallback),
      ElementsAre(
          Info(kCallback,
               "websocket commd, handle = 5, msg_type = 12, status_code = 3, is_fin = 1, data_len = 0"),
          Info(kCallback,
               "websocket commd, handle = 5, msg_type = 8, status_code = 0, is_fin = 1, data_len = 0")));
  EXPECT_THAT(Journal::Of("pool.Post"),
              ElementsAre("pool.Post WebSocket another", "pool.Post WebSocket another"));
}

TEST_F(GuardEvents, TheServersThreadRunsNoFrameLogic) {
  StartWithPort();
  std::atomic<bool> on_servers_thread{false};
  net_.send = [&, servers = std::this_thread::get_id()](const SentFrame&) {
    on_servers_thread = std::this_thread::get_id() == servers;
    return 0;
  };
  net_.Text(5, Asks("GetMianProcessPath", "g"));
  EXPECT_TRUE(WaitFor([&] { return net_.Sent().size() == 1; }));
  EXPECT_FALSE(on_servers_thread);
}

// The handler.

TEST_F(GuardEvents, AHandshakeMakesTheCurrentSessionAndLogsTheGuardsAddress) {
  net_.client_ip = [](std::int32_t) { return std::string("127.0.0.9"); };
  EXPECT_EQ(Endpoint().GetSessionId(), -1);
  Register(5);
  EXPECT_EQ(Endpoint().GetSessionId(), 5);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Taken(12, 5, 0), Info(kHandler, "Get client info:socket id :5, ip =127.0.0.9")));
  EXPECT_THAT(Journal::Of("net."), ElementsAre("net.ClientIp 5"));
}

TEST_F(GuardEvents, AHandshakeThatFailedIsLoggedAndStillTheCurrentSession) {
  Register(5);
  FromNowOn();
  Endpoint().TolmGuardOnRawMsgEIT(6, 12, 3, {});
  EXPECT_EQ(Endpoint().GetSessionId(), 6);
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(Taken(12, 6, 3),
                  Error(kHandler, "handshake_reg_msg error, msg_type:12, socket id :6, error_code = 3")));
  EXPECT_THAT(Journal::Of("net."), IsEmpty());
}

TEST_F(GuardEvents, ALaterHandshakeReplacesTheSessionAndClosesNothing) {
  Register(5);
  Register(4);
  EXPECT_EQ(Endpoint().GetSessionId(), 4);
  EXPECT_THAT(Journal::Of("net.Close"), IsEmpty());
  // The earlier one is still answered.
  Endpoint().TolmGuardOnRawMsgEIT(5, 1, 0, Asks("GetMianProcessPath", "g"));
  EXPECT_EQ(OnlySent().socket_id, 5);
}

TEST_F(GuardEvents, ACloseClosesThatSocketAndKeepsTheSession) {
  Register(5);
  FromNowOn();
  Endpoint().TolmGuardOnRawMsgEIT(5, kClose, 2, {});
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Taken(8, 5, 2), Line(3, "LPCFrameTrace", kHandler, "WebsocketServerClose")));
  EXPECT_THAT(Journal::Of("net."), ElementsAre("net.Close 5"));
  EXPECT_EQ(Endpoint().GetSessionId(), 5);
}

TEST_F(GuardEvents, ACloseThatFailsIsLoggedWithItsNumber) {
  net_.close = 1;
  Endpoint().TolmGuardOnRawMsgEIT(5, kClose, 0, {});
  EXPECT_THAT(log_.Lines(),
              ElementsAre(Taken(8, 5, 0), Line(3, "LPCFrameTrace", kHandler, "WebsocketServerClose"),
                          Error(kHandler, "WebsocketServerClose, ret = 1")));
}

TEST_F(GuardEvents, EventsOfNoTypeAndOfUnknownTypesAreLogged) {
  Endpoint().TolmGuardOnRawMsgEIT(5, -1, 0, {});
  Endpoint().TolmGuardOnRawMsgEIT(5, 9, 1, {});
  Endpoint().TolmGuardOnRawMsgEIT(5, 2, 0, {});
  EXPECT_THAT(log_.Lines(), ElementsAre(Taken(-1, 5, 0), Error(kHandler, "recv no_type, socket id : 5"),
                                        Taken(9, 5, 1), Error(kHandler, "msg type error, type is 9"),
                                        Taken(2, 5, 0), Error(kHandler, "msg type error, type is 2")));
}

TEST_F(GuardEvents, ATaskRunsTheHandlerWithItsFourFields) {
  CTolmGuardRawMsgTask(5, 1, 3, Asks("GetMianProcessPath", "g")).Run();
  EXPECT_TRUE(log_.Has(Taken(1, 5, 3)));
  EXPECT_EQ(OnlySent().socket_id, 5);
}

// Order and blocking.

TEST_F(GuardEvents, ANewGuardsHandshakeIsHandledBehindTheCloseOfTheOldOneThatCameBefore) {
  StartWithPort();
  Connect(5);
  Gate gate;
  net_.close = [&](std::int32_t) {
    gate.Wait();
    return 0;
  };
  net_.Close(5);
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  net_.Handshake(6);
  EXPECT_FALSE(WaitFor([&] { return Endpoint().GetSessionId() == 6; }, std::chrono::milliseconds(30)));
  // Texts do not stand behind the two.
  net_.Text(5, Asks("GetMianProcessPath", "g"));
  EXPECT_TRUE(WaitFor([&] { return net_.Sent().size() == 1; }));
  EXPECT_EQ(Endpoint().GetSessionId(), 5);
  gate.Open();
  EXPECT_TRUE(WaitFor([&] { return Endpoint().GetSessionId() == 6; }));
}

TEST_F(GuardEvents, AGuardThatComesBackAtOnceIsToldEveryTime) {
  log_.SetLevel(5);
  StartWithPort();
  net_.Handshake(1);
  ASSERT_TRUE(WaitFor([] { return Endpoint().GetSessionId() == 1; }));
  TolmLPCFrameNotifyStartPlugins("c");
  for (std::int32_t id = 2; id <= 200; ++id) {
    net_.Close(id - 1);
    net_.Handshake(id);
  }
  EXPECT_TRUE(WaitFor([&] { return NoticesByConnection().size() == 200; }));
  for (const auto& [id, count] : NoticesByConnection()) EXPECT_EQ(count, 1) << id;
}

TEST_F(GuardEvents, EventsThatWaitWhenTheFrameStopsAreDroppedAndHoldNothingUp) {
  StartWithPort();
  Connect(5);
  Gate gate;
  net_.close = [&](std::int32_t) {
    gate.Wait();
    return 0;
  };
  net_.Close(5);
  ASSERT_TRUE(WaitFor([&] { return gate.Waiting() == 1; }));
  for (std::int32_t id = 6; id < 30; ++id) net_.Handshake(id);
  std::jthread stop([] { EXPECT_EQ(TolmLPCFrameUnInit(), 0); });
  EXPECT_TRUE(WaitFor([] { return Journal::Count("pool.Stop WebSocket false") == 1; }));
  gate.Open();
  stop.join();
  // The next life handles its events as ever.
  net_.close = 0;
  StartWithPort();
  Connect(40);
  EXPECT_EQ(Endpoint().GetSessionId(), 40);
}

}  // namespace
}  // namespace tolm::test
