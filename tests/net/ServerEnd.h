#pragma once

// A server of a test, and what it called back.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "RawClient.h"
#include "ServerOptions.h"
#include "TolmNet/HttpServer.h"
#include "support/LogCapture.h"
#include "support/Wait.h"

namespace tolm::test {

struct SeenEvent {
  std::int32_t socket = 0;
  std::int32_t type = 0;
  bool fin = false;
  std::int32_t status = 0;
  std::string data;
  bool has_data = false;
};

/// "handshake", "close", "text 'abc'", "binary- 'abc'" (a minus: not final), in order, without the sockets.
std::string Story(const std::vector<SeenEvent>& events);

class ServerEnd {
 public:
  /// Starts; whether the events are taken from the beginning.
  explicit ServerEnd(const Tolm::Net::ServerOptions& options = {}, bool take_events = true);
  ~ServerEnd();

  std::uint16_t port() const { return port_; }
  std::int32_t handle() const { return handle_; }
  LogCapture& log() { return log_; }

  int TakeEvents();
  int Stop();
  /// Called with each event, behind its being kept. Before clients connect.
  void OnEvent(std::function<void(const SeenEvent&)> observer) { observer_ = std::move(observer); }

  std::vector<SeenEvent> Events() const;
  std::vector<SeenEvent> EventsOf(std::int32_t socket) const;
  std::size_t CountOf(std::int32_t type) const;
  std::vector<std::string> Requests() const;

  bool WaitStory(const std::string& story) const;
  bool WaitCount(std::int32_t type, std::size_t count) const;
  /// The socket id of the last handshake, when there are `count`.
  std::int32_t WaitSocket(std::size_t count = 1) const;

 private:
  LogCapture log_;
  std::int32_t handle_ = -1;
  std::uint16_t port_ = 0;
  std::function<void(const SeenEvent&)> observer_;

  mutable std::mutex mutex_;
  std::vector<SeenEvent> events_;      // guarded by mutex_
  std::vector<std::string> requests_;  // guarded by mutex_
};

}  // namespace tolm::test
