#pragma once

// A WebSocket server (RFC 6455) for processes of the same user on the same machine.
//
//   StartHttpServer ──► listening ──a client's upgrade──► connection (a socket id)
//                                                          │ handshake event (12)
//                                                          │ text, binary, fragments: one event a frame
//                                                          │ close event (8), whoever closed
//   StopServer  ◄── also with open connections            ▼
//
// Only WebSocket: a plain HTTP request is answered with 404. Before the upgrade a client is refused with
// 403 when its Host is not a loopback name or address, when it sends an Origin (a browser does, a guard
// does not), or when its end of the connection belongs to another user.
//
// All functions may be called from any thread, also from callbacks, and never throw. Results: 0 is success.

#include <cstdint>
#include <functional>
#include <string>

namespace Tolm::Net {

/// What a WebsocketRecv tells of; the first ones are the opcodes of RFC 6455, section 11.8.
enum WebsocketMsgtype : std::int32_t {
  kWebsocketNoType = -1,
  kWebsocketContinuation = 0,
  kWebsocketText = 1,
  kWebsocketBinary = 2,
  kWebsocketClose = 8,
  kWebsocketHandshake = 12,  ///< the client's upgrade is complete
};

/// One frame, or one event (close, handshake: fin true, status 0, len 0). The layout is fixed.
struct WebsocketRecv {
  bool fin;             ///< whether it ends its message
  std::int32_t type;    ///< a WebsocketMsgtype
  std::int32_t status;  ///< 0
  std::uint32_t len;
  const char* data;  ///< `len` bytes, not terminated, valid during the call only
};

/// A plain HTTP request, already answered with 404.
struct HttpServerRecv {
  std::string method;
  std::string path;
};

/// `handle` is the connection's socket id. Both are called on the server's thread, one at a time; what
/// throws is logged. A callback that blocks holds the server up.
using HttpServerCallBack = std::function<void(std::int32_t handle, const HttpServerRecv& recv)>;
using WebSocketServerCallBack = std::function<void(std::int32_t handle, const WebsocketRecv& recv)>;

/// Results other than 0.
enum HttpServerError : int {
  kNetOk = 0,
  kNetNoSuchHandle = 1,  ///< no such server or connection, or not any more
  kNetBadArgument = 2,   ///< not an address, no callback, a type that cannot be sent, null data, no text
  kNetCannotListen = 3,  ///< the port is taken, or the system says no; the log has its text
  kNetQueueFull = 4,     ///< the client does not read: too much waits to be sent to it
  kNetNoMemory = 5,
};

class CHttpServer {
 public:
  /// A frame with a larger payload ends its connection with close code 1009; it lies above what any user of
  /// this server takes, so that the limit that is seen is the user's.
  static constexpr std::uint32_t kMaxFramePayload = 64U * 1024 * 1024;
  /// Bytes that may wait to be sent to one client.
  static constexpr std::size_t kMaxQueuedBytes = 128U * 1024 * 1024;
  /// A client that takes nothing of what waits for it for so long is cut off.
  static constexpr int kStallMs = 10000;
  /// A client that has not finished its handshake after so long is cut off.
  static constexpr int kHandshakeMs = 5000;

  /// Listens on `ip`, an IPv4 address of this machine, and `port`, not 0, on a thread of its own. `handle`
  /// receives the server's handle, 1 or more, and is left as it is after a failure. A port that another
  /// socket listens on is a failure.
  static int StartHttpServer(std::int32_t& handle, const std::string& ip, std::uint16_t port,
                             HttpServerCallBack callback);

  /// Who receives the events of a server's connections. Events from before are kept and delivered first;
  /// when 4096 of them or 64 MiB are kept, nothing more is read or accepted until then.
  static int SetWebSocketServerCallBack(std::int32_t handle, WebSocketServerCallBack callback);

  /// Queues one frame; the server's thread sends it. The data are copied. Masking does not apply (RFC 6455,
  /// section 5.1: a server does not mask). A text in one frame that is not UTF-8 is kNetBadArgument;
  /// fragments are not looked at.
  static int SendWebSocketMsg(std::int32_t socket_id, WebsocketMsgtype type, const char* data,
                              std::uint32_t len, bool fin);

  /// Sends what waits, then closes. 0 as well for a connection that the peer has closed already.
  /// Ids are never reused: an id that was never given out is no such handle.
  static int CloseWebSocket(std::int32_t socket_id);

  /// Closes every connection and the port, and ends the thread, within a second whatever the clients do.
  /// When it has returned, no callback runs or starts any more; on the server's own thread it returns at
  /// once and the rest follows when the callback does. No close events. Another call for the same handle
  /// is kNetNoSuchHandle.
  static int StopServer(std::int32_t handle);

  /// The peer's address in dotted decimal; `ip` becomes empty when there is no such connection.
  static void GetWebSocketClientIp(std::string& ip, std::int32_t socket_id);

  CHttpServer() = delete;
};

}  // namespace Tolm::Net
