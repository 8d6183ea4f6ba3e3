#include "EventSink.h"

#include <exception>
#include <utility>

#include "TolmBase/LogLine.h"

namespace Tolm::Net {

EventSink::EventSink(std::shared_ptr<Waker> waker, const ServerOptions& options)
    : waker_(std::move(waker)), max_events_(options.max_kept_events), max_bytes_(options.max_kept_bytes) {}

void EventSink::SetCallback(WebSocketServerCallBack callback) {
  auto next = std::make_shared<const WebSocketServerCallBack>(std::move(callback));
  {
    const os::MutexLock lock(mutex_);
    callback_.swap(next);
  }
  // The one before goes unlocked, with what it holds.
  next.reset();
  waker_->Wake();
}

std::shared_ptr<const WebSocketServerCallBack> EventSink::Callback() const {
  const os::MutexLock lock(mutex_);
  return callback_;
}

void EventSink::Deliver(std::int32_t socket_id, std::int32_t type, bool fin, const char* data,
                        std::uint32_t len) {
  if (waker_->IsStopping()) return;
  const auto callback = Callback();
  if (!callback) {
    kept_.push_back({socket_id, type, fin, std::string(data != nullptr ? data : "", len)});
    kept_bytes_ += len;
    return;
  }
  DeliverKept();
  Call(*callback, socket_id, {fin, type, 0, len, data});
}

void EventSink::DeliverKept() {
  if (kept_.empty()) return;
  const auto callback = Callback();
  if (!callback) return;
  while (!kept_.empty()) {
    const Kept kept = std::move(kept_.front());
    kept_.pop_front();
    kept_bytes_ -= kept.data.size();
    const bool has_data = kept.type != kWebsocketHandshake && kept.type != kWebsocketClose;
    Call(*callback, kept.socket_id,
         {kept.fin, kept.type, 0, static_cast<std::uint32_t>(kept.data.size()),
          has_data ? kept.data.data() : nullptr});
  }
}

void EventSink::Call(const WebSocketServerCallBack& callback, std::int32_t socket_id,
                     const WebsocketRecv& recv) {
  if (waker_->IsStopping()) return;
  try {
    callback(socket_id, recv);
  } catch (const std::exception& error) {
    TOLM_LOG(Base::kLogLevelError, kLogTag, "the callback for socket %d threw: %s", socket_id, error.what());
  } catch (...) {
    TOLM_LOG(Base::kLogLevelError, kLogTag, "the callback for socket %d threw", socket_id);
  }
}

}  // namespace Tolm::Net
