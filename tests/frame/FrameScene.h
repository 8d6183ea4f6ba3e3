#pragma once

// The frame among scripted neighbours, whatever stands on the guard's side, and the words in which its
// tests are written.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Gate.h"
#include "Journal.h"
#include "ScriptedClock.h"
#include "ScriptedTransport.h"
#include "TolmLPCFrame.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "lpcsevermanager/LpcServerManager.h"
#include "support/LogCapture.h"
#include "support/Wait.h"

namespace TolmLPCFrame {

bool operator==(const MimePart& a, const MimePart& b);
bool operator==(const LPCData& a, const LPCData& b);

}  // namespace TolmLPCFrame

namespace tolm::test {

using TolmLPCFrame::FrameCallBackData;
using TolmLPCFrame::LPCData;
using TolmLPCFrame::MimePart;
using TolmLPCFrame::PlatformInfo;
using TolmLPCFrame::PluginInfo;

/// A session id, and how a log shows it.
inline constexpr char kSid[] = "0123456789abcdefABCDEF0123456789";
inline constexpr char kMaskedSid[] = "********************************";

// Log lines. `function` is given without the namespace: "CLPCIntegrate::Init".
LogLine Line(int level, const std::string& tag, const std::string& function, const std::string& text);
LogLine Trace(const std::string& function, const std::string& text);
LogLine Info(const std::string& function, const std::string& text);
LogLine Error(const std::string& function, const std::string& text);

/// The host behind the callback: remembers what it was given, answers as scripted.
class Host {
 public:
  struct Call {
    FrameCallBackData data;
    std::thread::id thread;
  };

  Host() { answer = true; }

  /// To be registered, with the host as user pointer.
  static bool Receive(const FrameCallBackData& data, void* user);

  Scripted<bool(const FrameCallBackData&)> answer;

  std::vector<Call> Calls() const;
  std::size_t Count() const;
  std::size_t Count(std::int32_t kind) const;
  /// The only call there was; a failure when there was another number of them.
  FrameCallBackData Only() const;
  void Clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Call> calls_;  // guarded by mutex_
};

/// An inbound record, word by word: Message().From("A").Url("/x").WantsReply(7).
class Message {
 public:
  Message& From(const std::string& id);
  Message& To(const std::string& id);
  Message& Url(const std::string& url) { return Param("url", url); }
  Message& Push(const std::string& tag) { return Param("pushMsgTag", tag); }
  Message& Param(const std::string& key, const std::string& value);
  Message& Body(const std::string& body);
  Message& WantsReply(std::uint64_t id);
  Message& Answers(std::uint64_t id);

  operator const tag_LPCCallBackData&() const { return data_; }
  /// For operations that take a record over.
  tag_LPCCallBackData Record() const { return data_; }

 private:
  tag_LPCCallBackData data_;
};

/// What the transport delivers when a peer has come or gone.
Message Connected(const std::string& id);
Message Disconnected(const std::string& id);
/// A plugin's own method messages.
Message InitFinish(const std::string& id);
Message UninitFinish(const std::string& id);
/// A plugin's registration with this body.
Message Registration(const std::string& id, const std::string& body);

/// A platform record with these plugins, key and id alike.
PlatformInfo Plugins(std::initializer_list<std::string> ids, std::int32_t frame_type = 0);

class FrameScene : public ::testing::Test {
 protected:
  FrameScene();
  void TearDown() override;

  /// Whether the frame was started by an earlier case in this process; what is to be seen before a first
  /// start cannot be seen then. Cases that ctest runs have a process of their own.
  static bool WasStartedByAnEarlierCase();

  static TolmLPCFrame::CLPCIntegrate& Registry() { return TolmLPCFrame::CLPCIntegrate::GetInstance(); }
  static TolmLPCFrame::CLpcServerManager& Manager();

  /// How many threads each pool has: net callbacks, main frame work, plugins, WebSocket.
  static std::vector<std::size_t> ThreadsOfPools();

  void RegisterHost();
  /// Registers the host and starts the frame as "endpoint".
  int Start(const PlatformInfo& info = {});
  /// Only the registry takes the list over; no thread runs.
  void List(const PlatformInfo& info);
  /// `id` registers `url`; a time-out of 0 becomes 5000.
  void Serve(const std::string& id, const std::string& url, int time_out = 0);
  void Method(const Message& message) { Registry().MethodCallBackEIT(message.Record()); }
  /// `id`, which must be listed, reports that it has initialised.
  void Ready(const std::string& id) { Method(InitFinish(id)); }
  /// What happened until now is not looked at.
  void FromNowOn();

  std::vector<LogLine> LinesOf(const std::string& function) const { return log_.LinesOf(function); }

  ScriptedTransport& transport_ = ScriptedTransport::Get();
  ScriptedClock& clock_ = ScriptedClock::Get();
  LogCapture log_;
  Host host_;
};

}  // namespace tolm::test
