#pragma once

// The endpoint that the guard connects to, and what arrives there.
//
//   guard ──WebSocket──► WebsocketTolmGuardServerMsgCallback (TolmNet's thread: checks, copies, posts)
//                              │ CTolmGuardRawMsgTask, on CMessageLoopForWebSocket
//                              ▼
//                        TolmGuardOnRawMsgEIT ── text ──► DealMessage ── a request ──► answered at once
//                              │                               └─ a reply ──► wakes SendAndWaitResponse
//                              └─ handshake, close ──► the current session, the start notice

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "TolmBase/Singleton.h"
#include "TolmBase/Task.h"
#include "TolmNet/HttpServer.h"
#include "common/Gate.h"
#include "net/ConditionAndMutex.h"
#include "os/Mutex.h"

namespace TolmLPCFrame {

/// The longest text that is taken from a guard.
inline constexpr std::uint32_t kMaxGuardText = 62914560;

/// Open once a connection's event has been handled, or dropped with its task.
using EventHandled = std::shared_ptr<Gate>;

/// One instance in the process: Tolm::Base::CSingleton<CTolmGuardConnectManager>::Instance(). All
/// operations but InitManager and UninitManager may run on many threads at once.
class CTolmGuardConnectManager {
 public:
  /// Chooses the port, from "LpcFrame.xml" or a free one that is written there, and opens the server on
  /// 127.0.0.1. False, with the reason in the log, when that is not possible.
  virtual bool InitManager(std::int32_t frame_type);
  /// Closes the server with all of its connections.
  virtual void UninitManager();
  /// Whether a server was ever started.
  bool HasEndpoint() const { return server_handle_ != -1; }

  // The connection.

  /// The socket id of the guard whose handshake came last, also after it has gone; -1 before the first.
  std::int32_t GetSessionId() const { return session_id_; }
  /// False when it could not be handed to the connection; the log says why.
  bool SendMessageToTolmGuard(std::int32_t session_id, Tolm::Net::WebsocketMsgtype msg_type, const char* data,
                              std::uint32_t len, bool fin);
  /// On TolmNet's thread; never throws.
  void WebsocketTolmGuardServerMsgCallback(std::int32_t handle,
                                           const Tolm::Net::WebsocketRecv& recv) noexcept;
  /// On the pool.
  void TolmGuardOnRawMsgEIT(std::int32_t session_id, std::int32_t msg_type, std::int32_t error_code,
                            const std::string& data);

  // Messages.

  /// Handles one text of a guard's.
  void DealMessage(std::int32_t session_id, const std::string& raw);
  /// Sends `message` to the current session and waits for the reply with the same `guid`; `reply` stays
  /// empty when none came in time. Must not run on CMessageLoopForWebSocket, where replies arrive. A text
  /// of which `guid` was used before is not sent.
  void SendAndWaitResponse(std::string& reply, const std::string& message, const std::string& guid,
                           std::int32_t timeout_ms);

  /// False when `guid` was ever added before.
  bool AddResponseWaiter(const std::string& guid, const std::shared_ptr<ConditionAndMutex>& waiter);
  /// Forgets the waiter and keeps its guid.
  void RemoveResponseWaiter(const std::string& guid);
  /// Null when nobody waits.
  std::shared_ptr<ConditionAndMutex> FindResponseWaiter(const std::string& guid) const;
  /// Replaces what was stored for `guid`. Always true.
  bool SaveResponse(const std::string& guid, const std::string& text);

 protected:
  ~CTolmGuardConnectManager() = default;

 private:
  friend class Tolm::Base::CSingleton<CTolmGuardConnectManager>;
  CTolmGuardConnectManager() = default;

  /// False when it is lost.
  bool PostEvent(std::int32_t handle, const Tolm::Net::WebsocketRecv& recv);
  static void MakeUpForLostEvent(std::int32_t handle, std::int32_t type) noexcept;
  void DealReply(const std::string& guid, const std::string& raw);
  bool IsResponseStored(const std::string& guid) const;
  std::string TakeResponse(const std::string& guid);

  std::atomic<std::int32_t> server_handle_{-1};
  std::atomic<std::int32_t> session_id_{-1};
  std::atomic<std::uint16_t> tolmguard_port_{0};

  mutable os::Mutex waiter_mutex_;
  std::map<std::string, std::shared_ptr<ConditionAndMutex>> map_response_waiter_
      TOLM_GUARDED_BY(waiter_mutex_);

  mutable os::Mutex response_mutex_;
  std::map<std::string, std::string> map_response_ TOLM_GUARDED_BY(response_mutex_);

  /// Also held so that connection events are posted in the order in which they are chained.
  os::Mutex event_order_mutex_;
  EventHandled last_event_handled_ TOLM_GUARDED_BY(event_order_mutex_);
};

/// One event of a guard's connection, on its way from TolmNet's thread to the pool.
class CTolmGuardRawMsgTask : public Tolm::Base::CTask {
 public:
  CTolmGuardRawMsgTask(std::int32_t session_id, std::int32_t msg_type, std::int32_t error_code,
                       std::string data);
  /// A handshake or close, which waits until the event before it was handled:
  ///
  ///   pool thread 1                       pool thread 2
  ///   takes "session 1 has closed"
  ///                                       takes "session 2 is there"
  ///                                       sees the start notice as sent, to session 1
  ///   marks the notice as not sent        (session 2 would never be told)
  CTolmGuardRawMsgTask(std::int32_t session_id, std::int32_t msg_type, std::int32_t error_code,
                       EventHandled event_before, EventHandled this_event);
  ~CTolmGuardRawMsgTask() override;
  void Run() override;

 private:
  const std::int32_t session_id_;
  const std::int32_t msg_type_;
  const std::int32_t error_code_;
  const std::string data_;
  const EventHandled event_before_;
  const EventHandled this_event_;
};

}  // namespace TolmLPCFrame
