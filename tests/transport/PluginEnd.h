#pragma once

// A plugin for the tests: the transport's client end with a journal of what reached its callbacks.

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "FrameEnd.h"
#include "TolmLPCServer/LpcClient.h"

namespace tolm::test {

class PluginEnd {
 public:
  using Handler = std::function<void(PluginEnd& plugin, const tag_LPCCallBackData& data)>;
  using Adjust = std::function<void(lpcclient::Settings& settings)>;

  /// Begins to connect. The default handler answers requests with what they carried.
  PluginEnd(os::LocalTransport& transport, const std::string& id, Handler handler = Echo,
            const Adjust& adjust = {});
  ~PluginEnd();
  PluginEnd(const PluginEnd&) = delete;
  PluginEnd& operator=(const PluginEnd&) = delete;

  lpcclient::CLpcClient& client() { return *client_; }
  const std::string& id() const { return id_; }
  bool WaitConnected() { return client_->WaitConnected(kLong); }
  /// Waits until both ends know of the connection.
  bool Meet(const FrameEnd& frame) { return WaitConnected() && frame.WaitStatus(id_, "connected"); }
  void Stop() { client_->Stop(); }

  /// A waiting request to the frame; the error.
  int Ask(const std::string& body, std::string* answer = nullptr, int time_out = kLong);
  int Ask(tag_LPCRequestData request, tag_LPCResponseData& response, int time_out = kLong);
  bool Answer(const tag_LPCCallBackData& request, const std::string& body);

  struct Message {
    tag_LPCCallBackData data;  ///< without its lease
    lpcclient::InboundInfo info;
  };
  std::vector<Message> Messages() const;

  /// What became of a connection, or of an attempt at one.
  struct Event {
    std::string what;  ///< "connected", "disconnected", "failed"
    int error = 0;
    std::string reason;
    std::chrono::steady_clock::time_point when;
  };
  std::vector<Event> Events() const;
  std::optional<Event> WaitEvent(const std::string& what) const;

  static void Echo(PluginEnd& plugin, const tag_LPCCallBackData& data);

 private:
  void Note(const std::string& what, int error, const std::string& reason);

  const std::string id_;
  const Handler handler_;
  mutable std::mutex mutex_;
  std::vector<Message> messages_;  // guarded by mutex_
  std::vector<Event> events_;      // guarded by mutex_
  std::unique_ptr<lpcclient::CLpcClient> client_;
};

}  // namespace tolm::test
