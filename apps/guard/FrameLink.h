#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "ConfigPort.h"
#include "Scheduler.h"
#include "Supervisor.h"

namespace guard {

struct FrameLinkOptions {
  std::filesystem::path config;  ///< read anew before each attempt to connect
  Role role = Role::kClient;
  Milliseconds first_retry{20};
  Milliseconds longest_retry{500};
  /// A connection on which nothing comes for so long is pinged, and given up after as long again.
  Milliseconds ping_interval{10000};
};

/// Called on the link's thread, never two at a time: OnConnected, any number of OnText, OnLost, and so
/// on. They must not block.
struct FrameLinkHandlers {
  std::function<void()> on_connected;
  std::function<void(std::string text)> on_text;
  std::function<void()> on_lost;
};

/// A WebSocket connection (RFC 6455) to the frame on this machine, made again whenever it is lost. Only to a
/// frame of the same user: whoever says which programs are started must be entitled to.
class FrameLink : public FrameChannel {
 public:
  FrameLink(FrameLinkOptions options, FrameLinkHandlers handlers);
  /// Stops.
  ~FrameLink() override;
  FrameLink(const FrameLink&) = delete;
  FrameLink& operator=(const FrameLink&) = delete;

  void Start();
  /// Closes the connection, so that what was sent before arrives, and waits for the thread; takes at most a
  /// fraction of a second. No handler is called any more afterwards. Not to be called in a handler.
  void Stop();
  /// From any thread.
  bool Send(std::string text) override;

 private:
  class Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace guard
