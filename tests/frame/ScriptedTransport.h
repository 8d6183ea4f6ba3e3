#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Scripted.h"
#include "TolmLPCServer/LpcServer.h"

namespace tolm::test {

/// A waiting send, as the transport was asked for it.
struct WaitingSend {
  tag_LPCRequestData request;
  std::string url;
  int time_out = 0;
};

/// Stands behind the functions of lpcserver: answers as scripted, remembers what it was told, and lets a
/// test play a peer. No lock is held while a script or the inbound callback runs.
class ScriptedTransport {
 public:
  static ScriptedTransport& Get();
  /// Everything succeeds, requests are numbered from 1, answers are empty, nothing is remembered. The
  /// inbound callback stays installed.
  void Reset();

  Scripted<bool()> init;
  Scripted<bool()> uninit;
  Scripted<bool(bool install)> set_invoke_callback;
  Scripted<bool(const std::string& name)> start_listen;
  Scripted<bool()> end_waits_soon;
  Scripted<bool()> stop_listen;
  Scripted<std::uint64_t(const tag_LPCRequestData&)> send;
  Scripted<bool(tag_LPCResponseData&, const WaitingSend&)> send_and_wait;
  Scripted<bool(const tag_LPCReplyData&)> reply;
  Scripted<bool(const tag_LPCNotifyData&)> notify;
  Scripted<int()> last_error;

  std::vector<tag_LPCRequestData> Requests() const;
  std::vector<WaitingSend> WaitingSends() const;
  std::vector<tag_LPCReplyData> Replies() const;
  std::vector<tag_LPCNotifyData> Notifications() const;
  /// The user pointer of every SetInvokeCallBack so far.
  std::vector<void*> CallbackUsers() const;

  bool HasCallback() const;
  /// Plays the transport's thread: gives `data` to the inbound callback on this thread and returns its
  /// result; false when none is installed.
  bool Deliver(const tag_LPCCallBackData& data);

  // What lpcserver's functions do.
  bool SetInvokeCallBack(lpcserver::InvokeCallBack callback, void* user);
  bool StopListen();
  std::uint64_t Send(const tag_LPCRequestData& request);
  bool Send(tag_LPCResponseData& response, WaitingSend send);
  bool Reply(const tag_LPCReplyData& data);
  bool Notify(const tag_LPCNotifyData& data);

 private:
  ScriptedTransport() { Reset(); }

  mutable std::mutex mutex_;
  // All below is guarded by mutex_.
  lpcserver::InvokeCallBack callback_ = nullptr;
  void* user_ = nullptr;
  int delivering_ = 0;
  std::vector<tag_LPCRequestData> requests_;
  std::vector<WaitingSend> waiting_sends_;
  std::vector<tag_LPCReplyData> replies_;
  std::vector<tag_LPCNotifyData> notifications_;
  std::vector<void*> callback_users_;
};

}  // namespace tolm::test
