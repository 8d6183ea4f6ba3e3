// Descriptors of the frame and of the SDK in a process that also starts others: a host may do so at any
// moment, on any thread, so none of ours may be without its mark for a moment.

#include <TolmPlugin/Plugin.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "SystemTest.h"
#include "support/Rows.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

namespace fs = std::filesystem;

/// The descriptors that a child would inherit, and what they are.
std::map<int, std::string> Inheritable() {
  std::map<int, std::string> found;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc/self/fdinfo", gone)) {
    const std::string number = entry.path().filename().string();
    std::ifstream file(entry.path());
    std::string word;
    while (file >> word && word != "flags:") {
    }
    constexpr unsigned long kCloseOnExec = 02000000;
    if (!(file >> word) || (std::stoul(word, nullptr, 8) & kCloseOnExec) != 0) continue;
    // The file that is read here is not marked either.
    const std::string what = fs::read_symlink("/proc/self/fd/" + number, gone).string();
    if (gone || what.find("/fdinfo") != std::string::npos) continue;
    found[std::stoi(number)] = what;
  }
  return found;
}

/// Looks on and on, on a thread of its own, for what was not there before.
class Lookout {
 public:
  Lookout() : before_(Inheritable()), thread_([this] { Look(); }) {}
  ~Lookout() { Finish(); }

  std::set<std::string> Finish() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
    return found_;
  }
  int looks() const { return looks_; }

 private:
  void Look() {
    while (!done_) {
      for (const auto& [number, what] : Inheritable()) {
        const auto known = before_.find(number);
        if (known == before_.end() || known->second != what) found_.insert(what);
      }
      ++looks_;
    }
  }

  const std::map<int, std::string> before_;
  std::atomic<bool> done_{false};
  std::atomic<int> looks_{0};
  std::set<std::string> found_;  // the thread's, until it has ended
  std::thread thread_;
};

using Descriptors = SystemTest;

TEST_F(Descriptors, OfTheFrameAndOfAPluginAreKeptFromWhatTheHostStarts) {
  Rows rows("inherited");
  Lookout lookout;
  ASSERT_TRUE(TolmLPCFrame::SetLogFile(runtime_.path() / "frame.log", 100'000, 2));
  for (int life = 0; life < 3; ++life) {
    StartFrame({"inside"});
    {
      TolmPlugin::Plugin plugin("inside");
      plugin.Serve("/inside/echo", [](const TolmPlugin::Request& request) { return request.message; });
      ASSERT_TRUE(plugin.Start(kEndpoint));
      ASSERT_TRUE(plugin.WaitReady(static_cast<int>(std::chrono::milliseconds(kPatience).count())));
      ASSERT_TRUE(host_.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, "inside",
                                     static_cast<std::size_t>(life) + 1));
      for (int i = 0; i < 200; ++i) EXPECT_TRUE(Call(Request("/inside/echo", std::string(1000, 'x'))).came);
    }
    EXPECT_EQ(StopFrame(), TolmLPCFrame::kFrameOk);
  }
  ASSERT_TRUE(TolmLPCFrame::SetLogFile({}, 0, 0));
  const std::set<std::string> found = lookout.Finish();
  EXPECT_GT(lookout.looks(), 20);
  rows.Expect(std::set<std::string>{}, found, "descriptors that a child of the host inherits");
}

}  // namespace
}  // namespace tolm::test
