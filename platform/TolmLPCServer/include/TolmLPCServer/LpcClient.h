#pragma once

// A plugin's end of the transport: one connection to a frame, which is made again whenever it is lost.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "TolmLPCServer/LpcError.h"
#include "TolmLPCServer/LpcOptions.h"
#include "TolmLPCServer/LpcRecords.h"

namespace os {
class LocalTransport;
}

namespace lpcclient {

/// How an inbound request wants to be answered, beside what its record says.
struct InboundInfo {
  bool sender_waits = false;  ///< a thread of the sender is blocked until the reply comes
  int time_out_ms = 0;        ///< how long it waits, from when it sent; 0: not known
};

struct Settings {
  std::string id;        ///< this peer's id: 1 to 255 bytes, no control characters, not "0"
  std::string endpoint;  ///< the name that the frame listens under
  lpc::Options options;
  os::LocalTransport* transport = nullptr;  ///< null: the system's own; must outlive the client
  int reconnect_first_ms = 10;  ///< the pause after a lost connection; doubled each time, with jitter
  int reconnect_cap_ms = 40;    ///< up to this: an attempt costs microseconds, and a frame is soon found

  /// An inbound message. On threads of the client, several at a time; may block and may send.
  std::function<void(tag_LPCCallBackData&& data, const InboundInfo& info)> on_message;
  /// A connection stands. No message of that connection is delivered until it returns; it may send and
  /// wait for replies.
  std::function<void()> on_connected;
  /// The connection is gone; `error` says why. One for each on_connected, but for the last when Stop
  /// ends it. The next connection is looked for when it has returned.
  std::function<void(int error, const std::string& reason)> on_disconnected;
  /// An attempt to connect failed; when it has returned more follow, also after a refusal, since its reason
  /// may pass.
  std::function<void(int error, const std::string& reason)> on_connect_failed;
};

/// All operations may be called from any thread and from every callback. None throws; failures leave a
/// code of lpc::Error for GetLPCLastError.
class CLpcClient {
 public:
  explicit CLpcClient(Settings settings);
  /// As Stop, also in a callback. No other call may be under way.
  ~CLpcClient();
  CLpcClient(const CLpcClient&) = delete;
  CLpcClient& operator=(const CLpcClient&) = delete;

  /// Begins to connect and stays at it until Stop. False when the settings are not usable
  /// (kEndpointNameInvalid, kRefused for the id) or it was started before.
  bool Start();

  /// Waits until a connection stands, for at most `time_out` milliseconds.
  bool WaitConnected(int time_out) const;
  bool IsConnected() const;

  /// Disconnects and ends the client's threads. What was sent before still goes out, if the frame takes
  /// it within a second; waiting sends fail with kPeerGone. When it has returned, no callback starts any
  /// more. Called from a callback it does not wait for that one.
  void Stop();

  /// As the operations of lpcserver; the peer is always the frame, and `dst_id` tells the frame for
  /// whom it is (usually "0", with a "url" in `params`).
  std::uint64_t Send(tag_LPCRequestData&& request);
  std::uint64_t Send(const tag_LPCRequestData& request, std::string_view body);
  bool Send(tag_LPCResponseData& response, tag_LPCRequestData&& request, int time_out);
  bool Send(tag_LPCResponseData& response, const tag_LPCRequestData& request, std::string_view body,
            int time_out);
  bool Reply(tag_LPCReplyData&& reply);
  bool Notify(tag_LPCNotifyData&& notify);
  bool Notify(const tag_LPCNotifyData& notify, std::string_view body);
  /// Says that the request `msg_id` will not be answered: a thread that waits for that fails at once,
  /// with kRefused.
  bool Reject(std::uint64_t msg_id, const std::string& reason);

  lpc::Statistics GetStatistics() const;

 private:
  class Core;
  const std::shared_ptr<Core> core_;
};

/// The code of the calling thread's latest client operation.
int GetLPCLastError();
/// Leaves a code there: for operations that are made of these, and fail beside them.
void SetLPCLastError(int error);

}  // namespace lpcclient
