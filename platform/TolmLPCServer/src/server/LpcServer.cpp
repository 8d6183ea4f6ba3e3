// The one endpoint of the process.

#include "TolmLPCServer/LpcServer.h"

#include <algorithm>
#include <exception>
#include <list>
#include <memory>
#include <utility>

#include "LastError.h"
#include "TolmBase/LogLine.h"
#include "os/Mutex.h"
#include "server/ServerCore.h"

namespace lpcserver {
namespace {

constexpr char kTag[] = "TolmLPCServer";

using Cores = std::list<std::shared_ptr<lpc::ServerCore>>;

struct Process {
  os::Mutex mutex;  // never held during a callback, a send or a wait for threads
  os::Condition changed;
  bool initialised TOLM_GUARDED_BY(mutex) = false;
  lpc::Options options TOLM_GUARDED_BY(mutex);
  InvokeCallBack callback TOLM_GUARDED_BY(mutex) = nullptr;
  void* user TOLM_GUARDED_BY(mutex) = nullptr;
  std::shared_ptr<lpc::ServerCore> core TOLM_GUARDED_BY(mutex);  // what sends go through
  std::string name TOLM_GUARDED_BY(mutex);
  /// An endpoint that some thread is starting or stopping.
  std::shared_ptr<lpc::ServerCore> changing TOLM_GUARDED_BY(mutex);
  /// Stopped by threads of their own, which may still be in the callback that did so.
  Cores leaving TOLM_GUARDED_BY(mutex);
  /// The place of `core` among these, made with it, so that a stop needs no memory.
  Cores place TOLM_GUARDED_BY(mutex);
  lpc::Statistics past TOLM_GUARDED_BY(mutex);  // of endpoints that have been stopped
};

// Never destroyed: a process may exit while its plugins talk.
Process& State() {
  static Process& state = *new Process;
  return state;
}

/// What the callback on this thread was given.
thread_local tag_LPCCallBackData* t_delivered = nullptr;

bool Deliver(tag_LPCCallBackData& data) {
  InvokeCallBack callback = nullptr;
  void* user = nullptr;
  {
    const os::MutexLock lock(State().mutex);
    callback = State().callback;
    user = State().user;
  }
  if (callback == nullptr) return false;
  t_delivered = &data;
  const auto forget = std::unique_ptr<void, void (*)(void*)>(&data, [](void*) { t_delivered = nullptr; });
  callback(data, user);
  return true;
}

// False when the calling thread is itself what the other one waits for.
bool WaitWhileChanging(Process& state, os::UniqueLock& lock) TOLM_REQUIRES(state.mutex) {
  if (state.changing && state.changing->IsOwnThread()) return false;
  state.changed.wait(lock, [&state]() TOLM_REQUIRES(state.mutex) { return !state.changing; });
  return true;
}

// One that has left in a callback which goes on, and is not the calling thread's own.
std::shared_ptr<lpc::ServerCore> OneToWaitFor(Process& state) TOLM_REQUIRES(state.mutex) {
  const auto found = std::find_if(state.leaving.begin(), state.leaving.end(),
                                  [](const auto& core) { return !core->HasEnded() && !core->IsOwnThread(); });
  return found == state.leaving.end() ? nullptr : *found;
}

void AddTo(lpc::Statistics& sum, const lpc::Statistics& part) {
  sum.connections += part.connections;
  sum.refused += part.refused;
  sum.cut_off += part.cut_off;
  sum.late_replies += part.late_replies;
  sum.undelivered += part.undelivered;
}

// The endpoint to send through, or null with the reason left as the last error.
std::shared_ptr<lpc::ServerCore> Core() {
  const os::MutexLock lock(State().mutex);
  if (!State().core) lpc::Conclude(State().initialised ? lpc::kNoSuchPeer : lpc::kNotInitialised);
  return State().core;
}

// Sends are the hosts' calls: what goes wrong in them ends here.
template <typename Operation>
bool Attempt(Operation&& operation) {
  try {
    const auto core = Core();
    return core && lpc::Conclude(operation(*core));
  } catch (const std::exception& error) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "sending failed: %s", error.what());
    return lpc::Conclude(lpc::kFailed);
  }
}

using lpc::wire::OutgoingBody;

std::uint64_t SendRequest(const tag_LPCRequestData& request, OutgoingBody body) {
  std::uint64_t id = 0;
  Attempt([&](lpc::ServerCore& core) {
    int error = lpc::kOk;
    id = core.Send(request, body, error);
    return error;
  });
  return id;
}

}  // namespace

bool Init() {
  const os::MutexLock lock(State().mutex);
  State().initialised = true;
  return lpc::Conclude(lpc::kOk);
}

bool Uninit() {
  StopListen();
  const os::MutexLock lock(State().mutex);
  State().initialised = false;
  State().callback = nullptr;
  return lpc::Conclude(lpc::kOk);
}

void SetOptions(const lpc::Options& options) {
  const os::MutexLock lock(State().mutex);
  State().options = options;
}

bool SetInvokeCallBack(InvokeCallBack callback, void* user) {
  const os::MutexLock lock(State().mutex);
  if (!State().initialised && callback != nullptr) return lpc::Conclude(lpc::kNotInitialised);
  State().callback = callback;
  State().user = user;
  return lpc::Conclude(lpc::kOk);
}

bool StartListen(const std::string& name) {
  Process& state = State();
  os::UniqueLock lock(state.mutex);
  if (!WaitWhileChanging(state, lock)) return lpc::Conclude(lpc::kAlreadyListening);
  if (!state.initialised) return lpc::Conclude(lpc::kNotInitialised);
  if (state.core) return lpc::Conclude(state.name == name ? lpc::kOk : lpc::kAlreadyListening);
  int error = lpc::kFailed;
  try {
    const auto core = std::make_shared<lpc::ServerCore>(os::SystemTransport(), state.options, Deliver);
    state.place.assign(1, core);
    // Before it listens: the first peer's callback may send at once.
    state.core = core;
    state.name = name;
    state.changing = core;
    const os::MutexUnlock unlocked(state.mutex);
    error = core->Start(name);
  } catch (const std::exception& failure) {
    const os::MutexUnlock unlocked(state.mutex);
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "listening failed: %s", failure.what());
  }
  if (error != lpc::kOk) {
    state.core = nullptr;
    state.place.clear();
  }
  state.changing = nullptr;
  state.changed.notify_all();
  return lpc::Conclude(error);
}

bool EndWaitsSoon() {
  std::shared_ptr<lpc::ServerCore> core;
  {
    const os::MutexLock lock(State().mutex);
    core = State().core;
  }
  if (core) core->EndWaitsSoon();
  return lpc::Conclude(lpc::kOk);
}

bool StopListen() {
  Process& state = State();
  os::UniqueLock lock(state.mutex);
  if (WaitWhileChanging(state, lock) && state.core) {
    state.changing = std::move(state.core);
    state.core = nullptr;
    const auto core = state.changing;
    lock.unlock();
    core->Stop();
    lock.lock();
    AddTo(state.past, core->GetStatistics());
    std::erase_if(state.leaving, [](const auto& left) { return left->HasEnded(); });
    if (core->IsOwnThread()) state.leaving.splice(state.leaving.end(), state.place);
    state.place.clear();
    state.changing = nullptr;
    state.changed.notify_all();
  }
  while (const auto core = OneToWaitFor(state)) {
    const os::MutexUnlock unlocked(state.mutex);
    core->Stop();
  }
  return lpc::Conclude(lpc::kOk);
}

std::uint64_t Send(const tag_LPCRequestData& request) {
  return Send(request, request.body);
}

std::uint64_t Send(tag_LPCRequestData&& request) {
  return SendRequest(request, {request.body, &request.body});
}

std::uint64_t Send(const tag_LPCRequestData& request, std::string_view body) {
  return SendRequest(request, {body});
}

bool Send(tag_LPCResponseData& response, const tag_LPCRequestData& request, std::string url, int time_out) {
  return Send(response, request, request.body, std::move(url), time_out);
}

bool Send(tag_LPCResponseData& response, tag_LPCRequestData&& request, std::string url, int time_out) {
  const OutgoingBody body{request.body, &request.body};
  return Attempt(
      [&](lpc::ServerCore& core) { return core.SendAndWait(response, request, body, url, time_out); });
}

bool Send(tag_LPCResponseData& response, const tag_LPCRequestData& request, std::string_view body,
          std::string url, int time_out) {
  return Attempt(
      [&](lpc::ServerCore& core) { return core.SendAndWait(response, request, {body}, url, time_out); });
}

bool Reply(const tag_LPCReplyData& reply) {
  return Reply(reply, reply.body);
}

bool Reply(tag_LPCReplyData&& reply) {
  return Attempt([&](lpc::ServerCore& core) { return core.Reply(reply, {reply.body, &reply.body}); });
}

bool Reply(const tag_LPCReplyData& reply, std::string_view body) {
  return Attempt([&](lpc::ServerCore& core) { return core.Reply(reply, {body}); });
}

bool Notify(const tag_LPCNotifyData& notify) {
  return Notify(notify, notify.body);
}

bool Notify(tag_LPCNotifyData&& notify) {
  return Attempt([&](lpc::ServerCore& core) { return core.Notify(notify, {notify.body, &notify.body}); });
}

bool Notify(const tag_LPCNotifyData& notify, std::string_view body) {
  return Attempt([&](lpc::ServerCore& core) { return core.Notify(notify, {body}); });
}

tag_LPCCallBackData Take(const tag_LPCCallBackData& data) {
  // No conditional expression: compilers differ in whether that moves.
  if (&data == t_delivered) return std::move(*t_delivered);
  return data;
}

int GetLPCLastError() {
  return lpc::LastError();
}

lpc::Statistics GetStatistics() {
  std::shared_ptr<lpc::ServerCore> core;
  lpc::Statistics total;
  {
    const os::MutexLock lock(State().mutex);
    core = State().core;
    total = State().past;
  }
  if (!core) return total;
  const lpc::Statistics now = core->GetStatistics();
  AddTo(total, now);
  total.peers = now.peers;
  return total;
}

}  // namespace lpcserver
