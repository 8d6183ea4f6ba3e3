#include <cstdlib>
#include <string>
#include <vector>

#include "GuardScene.h"

namespace tolm::test {
namespace {

using namespace TolmLPCFrame;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kFunction[] = "CTolmGuardConnectManager::InitManager";
const LogLine kReadOk = Info(kFunction, "ReadLocalXml ok");
const LogLine kConflict = Info(kFunction, "local xml port conflict");
const LogLine kPortOk = Info(kFunction, "local xml port ok");
const LogLine kNotWritten = Error(kFunction, "SetConfigXml failed");
const LogLine kNoPort = Error(kFunction, "InitManager failed tolmguard_port_ = 0");

LogLine Opened(int port) {
  return Info(kFunction, " Websocket Server Start successd port = " + std::to_string(port) + ".");
}
std::string StartsOn(int port) {
  return "net.Start 127.0.0.1 " + std::to_string(port);
}

/// The server that the guard connects to: its port, its start, its end.
class GuardEndpoint : public GuardTest {
 protected:
  /// The first port that a search finds when nobody holds one, and the state of the generator before it.
  static int FirstFreePort() {
    std::srand(42);
    const int port = std::rand() % 32768 + 1024 + 1;
    std::srand(42);
    return port;
  }
  void Hold(std::uint16_t port) {
    system_.tcp_table = [port](std::vector<os::PortRow>& rows) {
      rows.push_back(Held(port));
      return true;
    };
  }
  /// All that the next search tries.
  void HoldEveryCandidate() {
    int candidate = FirstFreePort() - 1;
    std::vector<os::PortRow> held{Held(8123)};
    for (int step = 1; step <= 49; ++step)
      held.push_back(Held(static_cast<std::uint16_t>(candidate += step)));
    system_.tcp_table = [held](std::vector<os::PortRow>& rows) {
      rows = held;
      return true;
    };
  }
  std::vector<LogLine> Lines() const { return LinesOf(kFunction); }
};

// The port.

TEST_F(GuardEndpoint, AFreePortOfTheFileIsUsedAndTheFileStaysAsItIs) {
  WriteConfig("<ServerPort>8123</ServerPort><Other/>");
  const std::string before = ReadFile("LpcFrame.xml");
  EXPECT_TRUE(Endpoint().InitManager(0));
  EXPECT_THAT(Journal::Of("net."), ElementsAre(StartsOn(8123), "net.SetCallBack 1"));
  EXPECT_THAT(Lines(), ElementsAre(kReadOk, kPortOk, Opened(8123)));
  EXPECT_EQ(ReadFile("LpcFrame.xml"), before);
  EXPECT_THAT(Journal::Of("file."), IsEmpty());
  EXPECT_EQ(PortOf(Endpoint()), 8123);
  EXPECT_EQ(ServerHandleOf(Endpoint()), 1);
}

TEST_F(GuardEndpoint, FrameTypeOneHasTheClientsPortAndEveryOtherOneTheServers) {
  WriteConfig("<ServerPort>8123</ServerPort><ClientPort>8124</ClientPort>");
  for (const std::int32_t type : {1, 0, 2, -1}) EXPECT_TRUE(Endpoint().InitManager(type));
  EXPECT_THAT(Journal::Of("net.Start"),
              ElementsAre(StartsOn(8124), StartsOn(8123), StartsOn(8123), StartsOn(8123)));
}

TEST_F(GuardEndpoint, APortThatSomebodyHoldsIsReplacedInTheFileAndUsed) {
  WriteConfig("<ServerPort>8123</ServerPort><ProtocolType>ws</ProtocolType>");
  Hold(8123);
  const int port = FirstFreePort();
  EXPECT_TRUE(Endpoint().InitManager(0));
  EXPECT_THAT(Lines(), ElementsAre(kReadOk, kConflict, Opened(port)));
  EXPECT_THAT(Journal::Of("net.Start"), ElementsAre(StartsOn(port)));
  EXPECT_THAT(ReadFile("LpcFrame.xml"),
              AllOf(HasSubstr("<ServerPort>" + std::to_string(port) + "</ServerPort>"),
                    HasSubstr("<ProtocolType>ws</ProtocolType>"), Not(HasSubstr("8123"))));
}

TEST_F(GuardEndpoint, APortThatAUdpSocketHoldsIsReplacedAsWell) {
  WriteConfig("<ServerPort>8123</ServerPort>");
  system_.udp_table = [](std::vector<os::PortRow>& rows) {
    rows.push_back(Held(8123));
    return true;
  };
  const int port = FirstFreePort();
  EXPECT_TRUE(Endpoint().InitManager(0));
  EXPECT_THAT(Journal::Of("net.Start"), ElementsAre(StartsOn(port)));
}

TEST_F(GuardEndpoint, AConflictThatCannotBeWrittenBackEndsTheStart) {
  WriteConfig("<ServerPort>8123</ServerPort>");
  Hold(8123);
  system_.file_open = false;
  EXPECT_FALSE(Endpoint().InitManager(0));
  EXPECT_THAT(Lines(), ElementsAre(kReadOk, kConflict, kNotWritten));
  EXPECT_THAT(Journal::Of("net."), IsEmpty());
}

TEST_F(GuardEndpoint, WithoutAFileNothingIsStartedAndNoFileIsMade) {
  EXPECT_FALSE(Endpoint().InitManager(0));
  EXPECT_THAT(Lines(), ElementsAre(kNotWritten));
  EXPECT_THAT(Journal::Of("net."), IsEmpty());
  EXPECT_FALSE(FileExists("LpcFrame.xml"));
  EXPECT_THAT(Journal::Of("table."), Contains("table.Tcp"));  // a free port was looked for first
}

TEST_F(GuardEndpoint, AFileThatAppearsBetweenReadingAndWritingGivesANewPort) {
  const int port = FirstFreePort();
  system_.tcp_table = [this](std::vector<os::PortRow>&) {
    WriteConfig("<ServerPort>1</ServerPort>");
    return true;
  };
  EXPECT_TRUE(Endpoint().InitManager(0));
  EXPECT_THAT(Lines(), ElementsAre(Info(kFunction, "GetFreePort a new port [" + std::to_string(port) + "]"),
                                   Opened(port)));
  EXPECT_THAT(ReadFile("LpcFrame.xml"),
              AllOf(HasSubstr("<ServerPort>" + std::to_string(port) + "<"), HasSubstr("<ProtocolType")));
}

TEST_F(GuardEndpoint, PortNumbersAreCutToSixteenBits) {
  const auto used = [this](const std::string& elements) {
    WriteConfig(elements);
    Journal::Clear();
    EXPECT_TRUE(Endpoint().InitManager(0)) << elements;
    return Journal::Of("net.Start").at(0);
  };
  EXPECT_EQ(used(""), StartsOn(65535));  // no element reads as -1
  EXPECT_EQ(used("<ServerPort>-1</ServerPort>"), StartsOn(65535));
  EXPECT_EQ(used("<ServerPort>abc</ServerPort>"), StartsOn(65535));
  EXPECT_EQ(used("<ServerPort></ServerPort>"), StartsOn(65535));
  EXPECT_EQ(used("<ServerPort>70000</ServerPort>"), StartsOn(4464));
  EXPECT_EQ(used("<ServerPort>99999999999</ServerPort>"), StartsOn(65535));
  EXPECT_EQ(used("<ServerPort> 8123 </ServerPort>"), StartsOn(8123));
}

TEST_F(GuardEndpoint, AMissingPortIsCheckedLikeAnyOther) {
  WriteConfig("");
  Hold(65535);
  const int port = FirstFreePort();
  EXPECT_TRUE(Endpoint().InitManager(0));
  EXPECT_THAT(Journal::Of("net.Start"), ElementsAre(StartsOn(port)));
}

TEST_F(GuardEndpoint, PortZeroInTheFileEndsTheStart) {
  for (const char* number : {"0", "65536"}) {
    WriteConfig("<ServerPort>" + std::string(number) + "</ServerPort>");
    FromNowOn();
    EXPECT_FALSE(Endpoint().InitManager(0));
    EXPECT_THAT(Lines(), ElementsAre(kReadOk, kPortOk, kNoPort));
    EXPECT_THAT(Journal::Of("net."), IsEmpty());
  }
}

TEST_F(GuardEndpoint, PortZeroThatARowHoldsIsReplacedLikeAnyOther) {
  WriteConfig("<ServerPort>0</ServerPort>");
  Hold(0);
  const int port = FirstFreePort();
  EXPECT_TRUE(Endpoint().InitManager(0));
  EXPECT_THAT(Journal::Of("net.Start"), ElementsAre(StartsOn(port)));
}

TEST_F(GuardEndpoint, WithoutAnyFreePortZeroIsWrittenAndTheStartEnds) {
  WriteConfig("<ServerPort>8123</ServerPort>");
  HoldEveryCandidate();
  EXPECT_FALSE(Endpoint().InitManager(0));
  EXPECT_THAT(Lines(), ElementsAre(kReadOk, kConflict, kNoPort));
  EXPECT_THAT(ReadFile("LpcFrame.xml"), HasSubstr("<ServerPort>0</ServerPort>"));
  EXPECT_THAT(Journal::Of("net."), IsEmpty());
}

TEST_F(GuardEndpoint, AFileThatIsNotXmlIsUsedWithThePortOfAMissingElement) {
  WriteFile("LpcFrame.xml", "port=8123\n");
  EXPECT_TRUE(Endpoint().InitManager(0));
  EXPECT_THAT(Lines(), ElementsAre(kReadOk, kPortOk, Opened(65535)));
}

// The server.

TEST_F(GuardEndpoint, AServerThatDoesNotStartIsLoggedWithPortAndNumber) {
  WriteConfig("<ServerPort>8123</ServerPort>");
  net_.start = [](std::int32_t&) { return 3; };
  EXPECT_FALSE(Endpoint().InitManager(0));
  EXPECT_THAT(
      Lines(),
      ElementsAre(kReadOk, kPortOk,
                  Error(kFunction, "[HTTPS START] Start Websocket Server failed, Port = 8123, ret = 3")));
  EXPECT_THAT(Journal::Of("net."), ElementsAre(StartsOn(8123)));
  EXPECT_EQ(ServerHandleOf(Endpoint()), -1);
}

TEST_F(GuardEndpoint, AServerThatStartsWithoutAHandleCountsAsFailed) {
  WriteConfig("<ServerPort>8123</ServerPort>");
  net_.start = [](std::int32_t&) { return 0; };
  EXPECT_FALSE(Endpoint().InitManager(0));
  EXPECT_THAT(Lines().back(),
              Error(kFunction, "[HTTPS START] Start Websocket Server failed, Port = 8123, ret = 0"));
}

TEST_F(GuardEndpoint, AServerThatTakesNoCallbackIsLoggedAndLeftRunning) {
  WriteConfig("<ServerPort>8123</ServerPort>");
  net_.set_callback = 2;
  EXPECT_FALSE(Endpoint().InitManager(0));
  EXPECT_THAT(Lines().back(),
              Error(kFunction, "[HTTPS START] set Websocket Server callback failed, Port = 8123, ret = 2"));
  EXPECT_THAT(Journal::Of("net."), ElementsAre(StartsOn(8123), "net.SetCallBack 1"));
  EXPECT_EQ(ServerHandleOf(Endpoint()), 1);
  Endpoint().UninitManager();
  EXPECT_EQ(Journal::Count("net.Stop 1"), 1u);
}

TEST_F(GuardEndpoint, PlainHttpRequestsAreIgnored) {
  WriteConfig("<ServerPort>8123</ServerPort>");
  Endpoint().InitManager(0);
  FromNowOn();
  net_.PlainHttpRequest();
  EXPECT_THAT(Journal::Entries(), IsEmpty());
}

TEST_F(GuardEndpoint, ASecondStartFindsItsOwnPortTakenAndOpensASecondServer) {
  WriteConfig("<ServerPort>8123</ServerPort>");
  EXPECT_TRUE(Endpoint().InitManager(0));
  Hold(8123);
  const int port = FirstFreePort();
  EXPECT_TRUE(Endpoint().InitManager(0));
  EXPECT_THAT(Journal::Of("net."),
              ElementsAre(StartsOn(8123), "net.SetCallBack 1", StartsOn(port), "net.SetCallBack 2"));
  EXPECT_THAT(ReadFile("LpcFrame.xml"), HasSubstr(std::to_string(port)));
  EXPECT_EQ(ServerHandleOf(Endpoint()), 2);
  EXPECT_EQ(PortOf(Endpoint()), port);
}

// The end.

TEST_F(GuardEndpoint, AStopEndsTheServerAndKeepsHandleAndSession) {
  WriteConfig("<ServerPort>8123</ServerPort>");
  Endpoint().InitManager(0);
  Register(7);
  FromNowOn();
  Endpoint().UninitManager();
  EXPECT_THAT(Journal::Entries(), ElementsAre("net.Stop 1"));
  EXPECT_EQ(PortOf(Endpoint()), 0);
  EXPECT_EQ(ServerHandleOf(Endpoint()), 1);
  EXPECT_EQ(Endpoint().GetSessionId(), 7);
}

TEST_F(GuardEndpoint, AStopThatFailsIsLoggedWithItsNumber) {
  net_.stop = 1;
  Endpoint().UninitManager();
  EXPECT_THAT(Journal::Of("net."), ElementsAre("net.Stop -1"));
  EXPECT_THAT(log_.Lines(), ElementsAre(Error("CTolmGuardConnectManager::UninitManager",
                                              "[WebsocketServerStop] failed, ret = 1")));
}

}  // namespace
}  // namespace tolm::test
