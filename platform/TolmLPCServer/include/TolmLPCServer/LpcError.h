#pragma once

namespace lpc {

/// Why a transport operation failed, as GetLPCLastError gives it. The values are part of the interface.
enum Error : int {
  kOk = 0,
  kNotInitialised = 1,       ///< Init has not been called, or Uninit has
  kAlreadyListening = 2,     ///< listening under another name
  kEndpointInUse = 3,        ///< a living process listens under this name
  kEndpointNameInvalid = 4,  ///< empty, too long, or with characters that are not allowed
  kEndpointFailed = 5,       ///< the system refused: folder not writable or not safe, and the like
  kNoSuchPeer = 6,           ///< nobody with this id is connected
  kPeerGone = 7,             ///< the connection ended before the answer came
  kTimeOut = 8,              ///< no answer in time
  kQueueFull = 9,            ///< the peer does not take what is queued for it already
  kMessageTooLarge = 10,     ///< above the limit for a message or for its params
  kRefused = 11,             ///< the other side refused the connection or the message
  kNotConnected = 12,        ///< a client without a connection at the moment
  kProtocol = 13,            ///< the other side does not speak this protocol
  kFailed = 14,              ///< anything else; the log has the system's words
};

/// A short English text for `error`, for logs and messages.
const char* ErrorText(int error) noexcept;

}  // namespace lpc
