#pragma once

// The frame and its guard's side among scripted neighbours, and the words in which these tests are written.

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FrameScene.h"
#include "GuardInside.h"
#include "ScriptedHttpServer.h"
#include "ScriptedSystem.h"
#include "ScriptedWait.h"
#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "net/TolmGuardConnectionManager.h"
#include "support/TempDirectory.h"

namespace tolm::test {

/// Whether a text is the same JSON as `expected`, member for member and whatever their order. "*" as the
/// expected value of the member "guid" stands for any 36 characters.
::testing::AssertionResult IsJson(const std::string& text, const std::string& expected);
MATCHER_P(JsonIs, expected, "is the JSON " + std::string(expected)) {
  const ::testing::AssertionResult result = IsJson(arg, expected);
  *result_listener << result.message();
  return static_cast<bool>(result);
}

/// The text at "/guid".
std::string GuidOf(const std::string& message);

// What a guard says.
std::string Asks(const std::string& method, const std::string& guid);
std::string Answers(const std::string& method, const std::string& guid);
std::string ProcessState(const std::string& members);

class GuardTest : public FrameScene {
 protected:
  GuardTest();
  void TearDown() override;

  static TolmLPCFrame::CTolmGuardConnectManager& Endpoint();
  static TolmLPCFrame::CLPCCommunicateWithTolmGuard& Guard();

  // The configuration file, in a folder of the test's own that is the executable's.

  std::string Folder() const { return directory_.path().string() + "/"; }
  std::string ConfigPath() const { return Folder() + "LpcFrame.xml"; }
  /// Writes a file into the folder; a "Config" document around these elements.
  void WriteFile(const std::string& name, const std::string& content) const;
  void WriteConfig(const std::string& elements) const;
  std::string ReadFile(const std::string& name) const;
  bool FileExists(const std::string& name) const;

  /// Starts the frame with a port that is configured for every frame type.
  int StartWithPort(const PlatformInfo& info = {});
  /// A guard's handshake over the open server, handled.
  void Connect(std::int32_t socket_id);
  /// The same without server and pool, on this thread.
  static void Register(std::int32_t socket_id);

  /// From now on the guard answers whatever is to be answered, at once, on a thread of its own.
  void AnswerDirectly();
  /// The same by the way of the open server.
  void AnswerOverTheWire();
  void JoinAnswers();
  /// Lets every wait last as long as an answer may take.
  void WaitForAnswers();

  /// The only frame that was sent; a failure when there was another number of them.
  SentFrame OnlySent() const;
  /// How often "NotifyFrameInitState" was handed to each connection.
  std::map<std::int32_t, int> NoticesByConnection() const;

  ScriptedHttpServer& net_ = ScriptedHttpServer::Get();
  ScriptedSystem& system_ = ScriptedSystem::Get();
  ScriptedWait& waits_ = ScriptedWait::Get();
  const TempDirectory directory_;

 private:
  std::mutex answers_mutex_;
  std::vector<std::jthread> answers_;  // guarded by answers_mutex_
};

}  // namespace tolm::test
