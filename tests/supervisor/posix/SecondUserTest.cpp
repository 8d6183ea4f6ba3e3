// A server of another user at the port where a guard looks for its frame.

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "FrameEndpoint.h"
#include "FrameLink.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/TempDirectory.h"
#include "support/posix/Stranger.h"

namespace guard {
namespace {

using tolm::test::Stranger;

TEST(SecondUserServer, IsLeftBeforeAnythingIsSaidOrHeard) {
  if (!Stranger::IsPossible()) GTEST_SKIP() << "only root can act as another user: not shown here";
  tolm::test::Rows rows("second_user");
  // Made over there: a socket is its maker's.
  std::unique_ptr<FrameEndpoint> server;
  Stranger stranger([&server](std::string_view question) -> std::string {
    if (server == nullptr) server = std::make_unique<FrameEndpoint>();
    if (question == "port") return std::to_string(server->port());
    if (!server->Accept()) return "nobody came";
    boost::system::error_code ended;
    server->stream().write(boost::asio::buffer(std::string("a word")), ended);
    const std::string said = server->Read();
    return server->ended ? "left" : "said " + said;
  });
  const tolm::test::TempDirectory directory;
  const tolm::test::LogCapture log(3);
  std::ofstream(directory.path() / "LpcFrame.xml")
      << "<Config><ClientPort>" << stranger.Ask("port") << "</ClientPort></Config>\n";
  std::mutex mutex;
  std::vector<std::string> events;  // guarded by mutex
  const auto keep = [&](const std::string& event) {
    const std::lock_guard lock(mutex);
    events.push_back(event);
  };
  FrameLinkOptions options;
  options.config = directory.path() / "LpcFrame.xml";
  {
    FrameLink link(options, {.on_connected = [&] { keep("connected"); },
                             .on_text = [&](const std::string& text) { keep("text " + text); },
                             .on_lost = [&] { keep("lost"); }});
    link.Start();
    // It comes back again and again, since the port may be its frame's by then.
    for (int i = 0; i < 3; ++i) rows.Expect(std::string("left"), stranger.Ask("accept"), std::to_string(i));
    link.Stop();
  }
  rows.Expect(std::vector<std::string>{}, events, "what the guard is told");
  std::size_t lines = 0;
  for (const auto& line : log.Lines()) {
    lines += line.text.find(" does not belong to the user of this guard") != std::string::npos ? 1 : 0;
  }
  rows.Expect(std::size_t{1}, lines, "lines in the log");
}

}  // namespace
}  // namespace guard
