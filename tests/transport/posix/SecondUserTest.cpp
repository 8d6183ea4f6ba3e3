// Another user of the machine at either end of an endpoint, and before the files beside it.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "FrameEnd.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "os/ChildProcess.h"
#include "os/NamedEvent.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/TempDirectory.h"
#include "support/posix/Stranger.h"

namespace tolm::test {
namespace {

namespace fs = std::filesystem;

std::string Errno(int error) {
  return "refused " + std::to_string(error);
}

std::string SocketIn(const fs::path& folder) {
  return folder / (std::string(kEndpoint) + ".sock");
}

/// Listens over there, until it is asked who has come: whoever it was, and how many bytes they have said.
class TheirListener {
 public:
  std::string Listen(const std::string& path) {
    socket_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const bool listens = ::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                         ::chmod(path.c_str(), 0777) == 0 && ::listen(socket_, 100) == 0;
    return listens ? "listens" : std::strerror(errno);
  }
  std::string WhoCame() const {
    int came = 0;
    std::size_t said = 0;
    for (;;) {
      const int peer = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
      if (peer < 0) break;
      ++came;
      char buffer[4096];
      // The other end has gone by now, or goes at once.
      for (ssize_t got = 0; (got = ::read(peer, buffer, sizeof buffer)) > 0;) {
        said += static_cast<std::size_t>(got);
      }
      ::close(peer);
    }
    return (came == 0 ? "nobody came" : "somebody came") + (", said " + std::to_string(said));
  }

 private:
  int socket_ = -1;
};

/// What the other user is asked to do: a word, a blank and a path.
std::string Act(TheirListener& listener, std::string_view question) {
  const std::size_t blank = question.find(' ');
  const std::string path(question.substr(blank + 1));
  const std::string_view word = question.substr(0, blank);
  if (word == "connect") return TryUnixSocket(path, {});
  if (word == "greet") return TryUnixSocket(path, HelloBytes("stranger"));
  if (word == "folder") return ::mkdir(path.c_str(), 0755) == 0 ? "made" : std::strerror(errno);
  if (word == "listen") return listener.Listen(path);
  if (word == "who") return listener.WhoCame();
  if (word == "plugin") {
    PluginEnd plugin(os::SystemTransport(), "stranger");
    const auto failed = plugin.WaitEvent("failed");
    return failed ? failed->reason : "it was let in";
  }
  if (word == "event") return os::NamedEvent::Open("event") ? "opened" : "none";
  if (word == "lock") {
    std::string why;
    return os::ProcessLock::TryTake("lock", why) ? "taken" : why;
  }
  return "?";
}

class SecondUser : public testing::Test {
 protected:
  void SetUp() override {
    if (!Stranger::IsPossible()) GTEST_SKIP() << "only root can act as another user: not shown here";
    // What is above the folder keeps nobody out, so that nothing but the folder and the ends do.
    fs::permissions(directory_.path(), fs::perms(0755));
    stranger_ =
        std::make_unique<Stranger>([listener = std::make_shared<TheirListener>()](std::string_view question) {
          return Act(*listener, question);
        });
  }
  std::string Ask(const std::string& word, const fs::path& path) {
    return stranger_->Ask(word + " " + path.string());
  }
  /// As only a mistake of the user's own could leave it.
  void OpenEverything() const {
    fs::permissions(folder_, fs::perms(0777));
    fs::permissions(SocketIn(folder_), fs::perms(0777));
  }

  const RuntimeDirectory directory_;
  const fs::path folder_ = directory_.endpoints();
  std::unique_ptr<Stranger> stranger_;
};

TEST_F(SecondUser, DoesNotGetToTheFrame) {
  Rows rows("second_user");
  LogCapture log(4);
  FrameEnd frame(os::SystemTransport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  const std::string socket = SocketIn(folder_);
  rows.Expect(Errno(EACCES), Ask("connect", socket), "the folder");
  rows.Expect(Errno(EACCES), Ask("greet", socket), "the folder, with a greeting");
  fs::permissions(folder_, fs::perms(0755));
  rows.Expect(Errno(EACCES), Ask("connect", socket), "the socket alone");
  OpenEverything();
  rows.Expect(std::string("said 0"), Ask("connect", socket), "neither");
  rows.Expect(std::string("said 0"), Ask("greet", socket), "neither, with a greeting");
  EXPECT_TRUE(WaitFor([&] { return frame.statistics().refused == 2; }));
  rows.Expect(std::size_t{0}, frame.Records().size(), "what the host was told");
  rows.Expect(std::uint64_t{0}, frame.statistics().connections, "connections that count");
  const auto lines = log.LinesOf("ServerCore::NoteRefused");
  rows.Expect(std::size_t{2}, lines.size(), "lines in the log");
  for (const LogLine& line : lines) {
    EXPECT_NE(line.text.find("it belongs to another user"), std::string::npos) << line.text;
  }
  // The user itself is served as before.
  fs::permissions(folder_, fs::perms(0700));
  PluginEnd plugin(os::SystemTransport(), "alpha");
  rows.Expect(true, plugin.Meet(frame), "the user's own plugin");
}

TEST_F(SecondUser, DoesNotGetToAPluginThroughAFolderOfTheirOwn) {
  Rows rows("second_user");
  fs::permissions(directory_.path(), fs::perms(0777));
  ASSERT_EQ(Ask("folder", folder_), "made");
  ASSERT_EQ(Ask("listen", SocketIn(folder_)), "listens");
  PluginEnd plugin(os::SystemTransport(), "alpha");
  const auto failed = plugin.WaitEvent("failed");
  ASSERT_TRUE(failed);
  rows.Expect(static_cast<int>(lpc::kEndpointFailed), failed->error, "the plugin's error");
  EXPECT_NE(failed->reason.find("belongs to another user"), std::string::npos) << failed->reason;
  plugin.Stop();
  rows.Expect(std::string("nobody came, said 0"), Ask("who", "-"), "what they see");
  FrameEnd frame(os::SystemTransport());
  rows.Expect(static_cast<int>(lpc::kEndpointFailed), frame.Listen(), "a frame in their folder");
}

TEST_F(SecondUser, DoesNotGetToAPluginThroughASocketInTheUsersFolder) {
  Rows rows("second_user");
  // While the folder was open they have put theirs there.
  fs::create_directory(folder_);
  fs::permissions(folder_, fs::perms(0777));
  ASSERT_EQ(Ask("listen", SocketIn(folder_)), "listens");
  fs::permissions(folder_, fs::perms(0700));
  {
    PluginEnd plugin(os::SystemTransport(), "alpha");
    const auto failed = plugin.WaitEvent("failed");
    ASSERT_TRUE(failed);
    rows.Expect(static_cast<int>(lpc::kRefused), failed->error, "the plugin's error");
    rows.Expect(std::string("the endpoint belongs to another user"), failed->reason, "the plugin's reason");
  }
  rows.Expect(std::string("somebody came, said 0"), Ask("who", "-"), "what they hear");
  // A frame takes the name from them, since nobody holds the lock.
  FrameEnd frame(os::SystemTransport());
  rows.Expect(static_cast<int>(lpc::kOk), frame.Listen(), "a frame");
  PluginEnd plugin(os::SystemTransport(), "alpha");
  rows.Expect(true, plugin.Meet(frame), "a plugin then");
}

TEST_F(SecondUser, HasNoUseOfTheUsersRuntimeFolder) {
  Rows rows("second_user");
  FrameEnd frame(os::SystemTransport());
  ASSERT_EQ(frame.Listen(), lpc::kOk);
  int error = 0;
  const auto event = os::NamedEvent::Create("event", error);
  ASSERT_TRUE(event);
  std::string why;
  const auto lock = os::ProcessLock::TryTake("lock", why);
  ASSERT_TRUE(lock) << why;
  const std::string theirs = folder_.string() + " belongs to another user";
  rows.Expect(theirs, Ask("plugin", "-"), "a plugin of theirs");
  rows.Expect(std::string("none"), Ask("event", "-"), "an event");
  rows.Expect(theirs, Ask("lock", "-"), "a lock");
  // Modes do not change whose it is.
  OpenEverything();
  rows.Expect(theirs, Ask("plugin", "-"), "a plugin of theirs, the folder open");
  rows.Expect(std::string("none"), Ask("event", "-"), "an event, the folder open");
  rows.Expect(theirs, Ask("lock", "-"), "a lock, the folder open");
  rows.Expect(std::size_t{0}, frame.Records().size(), "what the host was told");
}

}  // namespace
}  // namespace tolm::test
