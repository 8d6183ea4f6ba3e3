#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "TolmLPCServer/LpcClient.h"
#include "TolmPlugin/Plugin.h"

namespace trust {

/// So long a call waits that nobody answers: longer than anything here may take.
inline constexpr int kForever = 120'000;

/// A plugin "p<number>" of the SDK. Serves, below "/p<number>/": "fast", which echoes; "slow", which takes
/// some milliseconds; "never", which answers when the frame is gone; "back", which asks the host; "hop",
/// which asks the next plugin.
class EagerPlugin {
 public:
  EagerPlugin(int number, int plugins);
  ~EagerPlugin();
  EagerPlugin(const EagerPlugin&) = delete;
  EagerPlugin& operator=(const EagerPlugin&) = delete;

  bool WaitReady() const { return plugin_.WaitReady(kForever); }
  /// Whether a call of the plugin's has ended with an answer, or with a code.
  bool Call(const std::string& url, int time_out_ms = kForever);
  TolmPlugin::Plugin& plugin() { return plugin_; }

 private:
  TolmPlugin::Plugin plugin_;
  std::atomic<long> lives_{0};
};

/// A plugin "mute" without the SDK, which is sent "Uninit" as well. It answers only when it is told to, and
/// what it owes from an earlier life as soon as it is connected again.
class MutePlugin {
 public:
  MutePlugin();
  void AnswerUninit(bool answer) { answers_ = answer; }

 private:
  void Finish();

  std::atomic<bool> answers_{true};
  std::atomic<bool> owes_{false};
  std::unique_ptr<lpcclient::CLpcClient> client_;
};

}  // namespace trust
