#include "ScriptedTransport.h"

#include <atomic>
#include <memory>
#include <utility>

#include "Journal.h"
#include "support/Wait.h"

namespace tolm::test {
namespace {

thread_local int t_deliveries_on_this_thread = 0;

template <typename T>
std::vector<T> Copy(std::mutex& mutex, const std::vector<T>& values) {
  const std::lock_guard lock(mutex);
  return values;
}

}  // namespace

ScriptedTransport& ScriptedTransport::Get() {
  static ScriptedTransport* const transport = new ScriptedTransport;
  return *transport;
}

void ScriptedTransport::Reset() {
  init = true;
  uninit = true;
  set_invoke_callback = true;
  start_listen = true;
  end_waits_soon = true;
  stop_listen = true;
  send = [next = std::make_shared<std::atomic<std::uint64_t>>(1)](const tag_LPCRequestData&) {
    return (*next)++;
  };
  send_and_wait = true;
  reply = true;
  notify = true;
  last_error = 0;
  const std::lock_guard lock(mutex_);
  requests_.clear();
  waiting_sends_.clear();
  replies_.clear();
  notifications_.clear();
  callback_users_.clear();
}

std::vector<tag_LPCRequestData> ScriptedTransport::Requests() const {
  return Copy(mutex_, requests_);
}
std::vector<WaitingSend> ScriptedTransport::WaitingSends() const {
  return Copy(mutex_, waiting_sends_);
}
std::vector<tag_LPCReplyData> ScriptedTransport::Replies() const {
  return Copy(mutex_, replies_);
}
std::vector<tag_LPCNotifyData> ScriptedTransport::Notifications() const {
  return Copy(mutex_, notifications_);
}
std::vector<void*> ScriptedTransport::CallbackUsers() const {
  return Copy(mutex_, callback_users_);
}

bool ScriptedTransport::HasCallback() const {
  const std::lock_guard lock(mutex_);
  return callback_ != nullptr;
}

bool ScriptedTransport::Deliver(const tag_LPCCallBackData& data) {
  lpcserver::InvokeCallBack callback = nullptr;
  void* user = nullptr;
  {
    const std::lock_guard lock(mutex_);
    if (callback_ == nullptr) return false;
    callback = callback_;
    user = user_;
    ++delivering_;
  }
  ++t_deliveries_on_this_thread;
  const bool result = callback(data, user);
  --t_deliveries_on_this_thread;
  const std::lock_guard lock(mutex_);
  --delivering_;
  return result;
}

bool ScriptedTransport::SetInvokeCallBack(lpcserver::InvokeCallBack callback, void* user) {
  Journal::Note(callback != nullptr ? "lpc.SetInvokeCallBack on" : "lpc.SetInvokeCallBack off");
  {
    const std::lock_guard lock(mutex_);
    callback_users_.push_back(user);
  }
  if (!set_invoke_callback(callback != nullptr)) return false;
  const std::lock_guard lock(mutex_);
  callback_ = callback;
  user_ = user;
  return true;
}

bool ScriptedTransport::StopListen() {
  Journal::Note("lpc.StopListen");
  const bool result = stop_listen();
  // As the real one: no callback starts any more once this has returned.
  WaitFor([this] {
    const std::lock_guard lock(mutex_);
    return delivering_ == t_deliveries_on_this_thread;
  });
  return result;
}

std::uint64_t ScriptedTransport::Send(const tag_LPCRequestData& request) {
  Journal::Note("lpc.Send " + request.dst_id);
  {
    const std::lock_guard lock(mutex_);
    requests_.push_back(request);
  }
  return send(request);
}

bool ScriptedTransport::Send(tag_LPCResponseData& response, WaitingSend wanted) {
  Journal::Note("lpc.SendAndWait " + wanted.request.dst_id);
  {
    const std::lock_guard lock(mutex_);
    waiting_sends_.push_back(wanted);
  }
  return send_and_wait(response, wanted);
}

bool ScriptedTransport::Reply(const tag_LPCReplyData& data) {
  Journal::Note("lpc.Reply " + data.dst_id);
  {
    const std::lock_guard lock(mutex_);
    replies_.push_back(data);
  }
  return reply(data);
}

bool ScriptedTransport::Notify(const tag_LPCNotifyData& data) {
  Journal::Note("lpc.Notify " + data.dst_id);
  {
    const std::lock_guard lock(mutex_);
    notifications_.push_back(data);
  }
  return notify(data);
}

}  // namespace tolm::test

namespace lpcserver {

using tolm::test::Journal;
using tolm::test::ScriptedTransport;

namespace {

template <typename Record>
Record With(Record record, std::string_view body) {
  record.body = body;
  return record;
}

}  // namespace

bool Init() {
  Journal::Note("lpc.Init");
  return ScriptedTransport::Get().init();
}

bool Uninit() {
  Journal::Note("lpc.Uninit");
  return ScriptedTransport::Get().uninit();
}

void SetOptions(const lpc::Options&) {
  Journal::Note("lpc.SetOptions");
}

bool SetInvokeCallBack(InvokeCallBack callback, void* user) {
  return ScriptedTransport::Get().SetInvokeCallBack(callback, user);
}

bool StartListen(const std::string& name) {
  Journal::Note("lpc.StartListen " + name);
  return ScriptedTransport::Get().start_listen(name);
}

bool EndWaitsSoon() {
  Journal::Note("lpc.EndWaitsSoon");
  return ScriptedTransport::Get().end_waits_soon();
}

bool StopListen() {
  return ScriptedTransport::Get().StopListen();
}

std::uint64_t Send(const tag_LPCRequestData& request) {
  return ScriptedTransport::Get().Send(request);
}

std::uint64_t Send(tag_LPCRequestData&& request) {
  return ScriptedTransport::Get().Send(request);
}

std::uint64_t Send(const tag_LPCRequestData& request, std::string_view body) {
  return ScriptedTransport::Get().Send(With(request, body));
}

bool Send(tag_LPCResponseData& response, const tag_LPCRequestData& request, std::string url, int time_out) {
  return ScriptedTransport::Get().Send(response, {request, std::move(url), time_out});
}

bool Send(tag_LPCResponseData& response, tag_LPCRequestData&& request, std::string url, int time_out) {
  return ScriptedTransport::Get().Send(response, {std::move(request), std::move(url), time_out});
}

bool Send(tag_LPCResponseData& response, const tag_LPCRequestData& request, std::string_view body,
          std::string url, int time_out) {
  return ScriptedTransport::Get().Send(response, {With(request, body), std::move(url), time_out});
}

bool Reply(const tag_LPCReplyData& reply) {
  return ScriptedTransport::Get().Reply(reply);
}

bool Reply(tag_LPCReplyData&& reply) {
  return ScriptedTransport::Get().Reply(reply);
}

bool Reply(const tag_LPCReplyData& reply, std::string_view body) {
  return ScriptedTransport::Get().Reply(With(reply, body));
}

bool Notify(const tag_LPCNotifyData& notify) {
  return ScriptedTransport::Get().Notify(notify);
}

bool Notify(tag_LPCNotifyData&& notify) {
  return ScriptedTransport::Get().Notify(notify);
}

bool Notify(const tag_LPCNotifyData& notify, std::string_view body) {
  return ScriptedTransport::Get().Notify(With(notify, body));
}

tag_LPCCallBackData Take(const tag_LPCCallBackData& data) {
  return data;
}

int GetLPCLastError() {
  return ScriptedTransport::Get().last_error();
}

lpc::Statistics GetStatistics() {
  return {};
}

}  // namespace lpcserver
