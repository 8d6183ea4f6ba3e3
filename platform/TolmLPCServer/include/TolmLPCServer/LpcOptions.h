#pragma once

#include <cstddef>
#include <cstdint>

namespace lpc {

/// Limits and times of one end of the transport. The defaults are meant to be right.
struct Options {
  std::size_t max_message_bytes = 128u << 20;  ///< ids, params and body of one message together
  std::size_t max_params = 4096;               ///< entries of `params`
  std::size_t max_queue_bytes = 64u << 20;     ///< unsent bytes per peer; one message may exceed it alone
  std::size_t max_inbound_bytes = 64u << 20;   ///< received and still worked on, per peer, before it is
                                               ///< not read from; four times this ends the connection
  std::size_t max_half_open = 64;              ///< connections that have not finished their handshake
  int handshake_ms = 5000;                     ///< for the whole handshake
  int ping_ms = 1000;                          ///< for the answer to a ping
  int stall_ms = 10000;                        ///< how long a peer may take nothing of what is queued
  int stop_wait_ms = 5000;                     ///< how long senders that wait hold up an end that is to stop
  int min_threads = 2;                         ///< threads that wait for traffic
  int max_threads = 64;                        ///< with those that are busy in callbacks
};

/// What happened so far, for diagnostics. Counters only grow.
struct Statistics {
  std::uint64_t peers = 0;         ///< connected now
  std::uint64_t connections = 0;   ///< handshakes completed
  std::uint64_t refused = 0;       ///< connections refused or cut off before their handshake ended
  std::uint64_t cut_off = 0;       ///< peers disconnected for what they did, or did not do
  std::uint64_t late_replies = 0;  ///< replies that nobody waited for any more
  std::uint64_t undelivered = 0;   ///< inbound messages dropped for want of a callback
};

}  // namespace lpc
