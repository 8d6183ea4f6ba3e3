// Another user of the machine at the guard's port.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "ServerEnd.h"
#include "support/Rows.h"
#include "support/posix/Stranger.h"

namespace tolm::test {
namespace {

using namespace Tolm::Net;

/// "<port> <number>": sends the request of that number, and gives the status and how much came behind the
/// head.
std::string AskServer(std::string_view question) {
  const auto port = static_cast<std::uint16_t>(std::atoi(std::string(question).c_str()));
  const std::string requests[] = {UpgradeRequestBytes(), UpgradeRequestBytes() + Text("word"),
                                  UpgradeRequestBytes({"Upgrade:"})};
  const auto number =
      static_cast<std::size_t>(std::atoi(std::string(question.substr(question.find(' '))).c_str()));
  RawClient client(port);
  if (!client.connected() || !client.Send(requests[number])) return "not connected";
  const std::string head = client.ReadHead();
  return std::to_string(std::atoi(head.substr(0, 12).substr(9).c_str())) +
         (client.ReadFrame() ? " and more" : "");
}

TEST(NetSecondUser, IsForbiddenAndToldNothing) {
  if (!Stranger::IsPossible()) GTEST_SKIP() << "only root can act as another user: not shown here";
  Rows rows("second_user");
  Stranger stranger(AskServer);
  ServerEnd server;
  auto guard = RawClient::Upgraded(server.port());
  ASSERT_TRUE(guard.connected());
  const std::int32_t guards_socket = server.WaitSocket();
  const auto ask = [&](int number) {
    return stranger.Ask(std::to_string(server.port()) + " " + std::to_string(number));
  };
  rows.Expect(std::string("403"), ask(0), "an upgrade");
  rows.Expect(std::string("403"), ask(1), "an upgrade with a text behind it");
  rows.Expect(std::string("404"), ask(2), "a plain request");
  rows.Expect(std::size_t{1}, server.CountOf(kWebsocketHandshake), "handshakes");
  rows.Expect(std::size_t{0}, server.CountOf(kWebsocketText), "texts");
  const auto lines = server.log().LinesOf("Refuse");
  rows.Expect(std::size_t{2}, lines.size(), "lines in the log");
  for (const LogLine& line : lines) {
    EXPECT_NE(line.text.find("it is not known to be this user's"), std::string::npos) << line.text;
  }
  // The guard's own connection is none of theirs.
  guard.Send(Text("here"));
  EXPECT_TRUE(server.WaitCount(kWebsocketText, 1));
  rows.Expect(guards_socket, server.Events().back().socket, "who is heard");
}

}  // namespace
}  // namespace tolm::test
