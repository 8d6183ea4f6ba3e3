#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "TolmBase/Singleton.h"
#include "TolmBase/Task.h"
#include "TolmLPCFrame.h"
#include "TolmLPCServer/LpcRecords.h"
#include "os/Mutex.h"

namespace TolmLPCFrame {

/// The frame's only contact with the transport: brings the endpoint up and down, sorts every inbound
/// message, and is the one place where the host's callback is called. One instance in the process:
/// Tolm::Base::CSingleton<CLpcServerManager>::Instance().
class CLpcServerManager {
 public:
  bool LpcInit(const std::string& lpc_server_name);
  bool LpcStartListen(const std::string& lpc_server_name);
  bool LpcUnint();
  bool LpcStopListen();

  /// Replaces the host's callback and its user pointer; null removes it.
  void SetCallBack(LpcMsgCallBack callback, void* user);

  /// Calls the host's callback and gives its result; false without one, and when it throws.
  bool CallLpcCallBack(const FrameCallBackData& fcd);

  /// The transport's inbound callback: pushes go to the host on this thread, everything else becomes a
  /// task of CMessageLoopForNetCallBack. Always true.
  static bool LPCServerCallback(const tag_LPCCallBackData& data, void* user);

  /// The transport's operations, forwarded. `body` stands for the record's own, so that the host's need not
  /// be copied.
  std::uint64_t SendRequest(const tag_LPCRequestData& request, std::string_view body);
  bool SendAndWait(tag_LPCResponseData& response, const tag_LPCRequestData& request, std::string_view body,
                   const std::string& url, int time_out);
  bool Reply(const tag_LPCReplyData& reply, std::string_view body);
  bool Notify(const tag_LPCNotifyData& notify, std::string_view body);
  int GetLastError();
  bool EndWaitsSoon();

  /// Whether the calling thread is in the host's callback.
  static bool IsInCallback();

 private:
  friend class Tolm::Base::CSingleton<CLpcServerManager>;
  CLpcServerManager() = default;

  /// Held only while the pair is copied or replaced, never during a call.
  os::Mutex callback_mutex_;
  LpcMsgCallBack callback_ TOLM_GUARDED_BY(callback_mutex_) = nullptr;
  void* callback_user_ TOLM_GUARDED_BY(callback_mutex_) = nullptr;
};

/// A message with a url, on its way to CLPCIntegrate::URLCallBackEIT.
class CURLCallBackTask : public Tolm::Base::CTask {
 public:
  CURLCallBackTask(std::string url, std::string mt, tag_LPCCallBackData data);
  void Run() override;

 private:
  std::string url_;  ///< query removed
  std::string mt_;
  tag_LPCCallBackData data_;
};

/// A message without url and push tag, on its way to CLPCIntegrate::MethodCallBackEIT.
class CMethodCallBackTask : public Tolm::Base::CTask {
 public:
  explicit CMethodCallBackTask(tag_LPCCallBackData data);
  void Run() override;

 private:
  tag_LPCCallBackData data_;
  const std::uint64_t arrival_;
};

}  // namespace TolmLPCFrame
