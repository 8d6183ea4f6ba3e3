#pragma once

// What a plugin author uses. A whole plugin:
//
//   #include <TolmPlugin/Plugin.h>
//
//   int main(int argc, char** argv) {
//     TolmPlugin::Plugin plugin("clock", "tells the time");
//     plugin.Serve("/clock/now", [](const TolmPlugin::Request&) {
//       return TolmPlugin::Message{.body = std::to_string(std::time(nullptr))};
//     });
//     return plugin.Run(argc, argv);
//   }
//
//   Run: connect ─► register the urls, wait until that is in force ─► "InitFinish" ─► serve ─► "Uninit":
//        the uninit hook ─► "UninitFinish" ─► end. When the frame is lost: connect again and so on.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TolmLPCFrame.h"

namespace TolmPlugin {

using Headers = std::map<std::string, std::string>;
using Part = TolmLPCFrame::MimePart;

/// What one side says to the other: a request, a notification, or an answer (which needs no url).
struct Message {
  // All initialised, so that Message{.body = "text"} is no warning.
  std::string url{};
  std::string method{};
  std::string schema{};
  Headers headers{};
  std::vector<Part> parts{};
  std::string body{};  ///< any bytes
};

/// A message that reached this plugin.
struct Request {
  Message message;
  std::string query;         ///< what stood behind the "?" of the url; message.url has the part before it
  std::string sender;        ///< "0": the host, or a plugin through the frame
  std::uint64_t id = 0;      ///< of the request, for log lines
  bool wants_answer = true;  ///< false: a notification; what the handler returns is dropped
  /// Until when the sender waits, when it says so; an answer that comes later is dropped.
  std::optional<std::chrono::steady_clock::time_point> deadline;
};

/// Answers one request. Runs on threads of the plugin, many at a time; may block and may call back into
/// the plugin object. When it throws, the sender is told at once that there will be no answer.
/// The request is the handler's own: one that is written with `Request request` or `Request&& request` may
/// move a long body out of it.
using Handler = std::function<Message(Request&& request)>;

/// The answer to a request that was sent without waiting.
using AnswerHandler = std::function<void(std::uint64_t id, const Message& answer)>;

inline constexpr int kDefaultTimeOutMs = 5000;

/// One plugin. Set it up first (Serve, UseHeaders, the hooks), then Run, or Start and Stop. Operations
/// behind that may be called from any thread and from every handler and hook.
class Plugin {
 public:
  /// `id` is the plugin's id, as the host lists it; `description` is for people.
  explicit Plugin(std::string id, std::string description = {});
  /// Stops it. Must not run on one of the plugin's own threads.
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // Setting up.

  /// Serves `url`, upper and lower case alike, with anything behind a "?". A segment "<ID>" stands for
  /// every number but -1, "<GUID>" for every text of exactly 32 bytes. `time_out_ms` is how long callers
  /// should wait; the frame makes it at least 5000.
  Plugin& Serve(const std::string& url, Handler handler, int time_out_ms = kDefaultTimeOutMs);
  /// HTTP header names that this plugin wants to be sent.
  Plugin& UseHeaders(std::vector<std::string> names);
  /// Runs once, before "InitFinish"; how long it took is reported with it.
  Plugin& OnInit(std::function<void()> hook);
  /// Runs when the frame asks the plugin to end, before "UninitFinish".
  Plugin& OnUninit(std::function<void()> hook);
  /// The plugin is registered and has reported "InitFinish"; again after each lost connection.
  Plugin& OnReady(std::function<void()> hook);
  /// The frame is gone; the plugin tries to reach it again when the hook has returned.
  Plugin& OnLost(std::function<void(const std::string& reason)> hook);
  Plugin& OnAnswer(AnswerHandler handler);

  // Living.

  /// The whole life of a plugin process: reads the options --endpoint NAME and --id ID, connects, serves,
  /// and returns the process's exit status when the frame has asked the plugin to end or a signal did.
  /// Without --endpoint it says on stderr what it is and how it is started, and returns 2.
  int Run(int argc, const char* const* argv);

  /// Connects to the frame that listens as `endpoint`, now or whenever it comes. False when it was started
  /// before, and, with the reason in LastError, when `endpoint` or the id is not valid or the system has no
  /// memory or thread for it. Throws nothing.
  bool Start(const std::string& endpoint);
  /// Waits until OnReady's moment, for at most `time_out_ms`.
  bool WaitReady(int time_out_ms) const;
  /// Waits until the frame has asked the plugin to end and "UninitFinish" was sent, or Stop was called.
  void WaitEnd() const;
  /// Ends the connection and waits for the plugin's threads, but for the calling one.
  void Stop();

  // Talking. None throws; each leaves the reason of a failure for LastError.

  /// Sends a request to whoever serves its url, another plugin or else the host, and waits for the
  /// answer for at most `time_out_ms`; `answer` is changed only on success.
  bool Call(Message& answer, const Message& request, int time_out_ms = kDefaultTimeOutMs);
  /// Sends a request and gives its id at once, 0 when it could not be sent; the answer goes to OnAnswer.
  std::uint64_t CallLater(const Message& request);
  /// Sends what nobody answers.
  bool Notify(const Message& message);
  /// Sends a push to the host: no url, but a tag that is not empty.
  bool Push(const std::string& tag, const Message& message);

  /// A code of lpc::Error, for the calling thread's latest operation above.
  static int LastError();
  const std::string& id() const;

 private:
  class Core;
  std::shared_ptr<Core> core_;
};

}  // namespace TolmPlugin
