#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "TolmNet/HttpServer.h"
#include "os/PortTable.h"

namespace Tolm::Net {

inline constexpr char kLogTag[] = "TolmNet";

/// What the public header states as constants, so that a test need not wait for them.
struct ServerOptions {
  std::chrono::milliseconds handshake{CHttpServer::kHandshakeMs};
  std::chrono::milliseconds stall{CHttpServer::kStallMs};
  /// How long a peer may take to answer our close frame.
  std::chrono::milliseconds close_answer{2000};
  /// How long a connection that is over waits for its last bytes to be taken and for the peer to go: a
  /// socket that is closed with unread input is reset, and the peer would not see why.
  std::chrono::milliseconds linger{1000};
  std::size_t max_queued = CHttpServer::kMaxQueuedBytes;
  std::uint32_t max_frame = CHttpServer::kMaxFramePayload;
  /// Of events that wait for a callback to be set; beyond it nothing more is read or accepted.
  std::size_t max_kept_bytes = 64U * 1024 * 1024;
  std::size_t max_kept_events = 4096;
  /// Ports of our end and of the peer's.
  std::function<bool(std::uint16_t, std::uint16_t)> is_peer_same_user = os::IsLoopbackPeerSameUser;
};

}  // namespace Tolm::Net
