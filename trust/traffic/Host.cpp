#include "traffic/Host.h"

#include <chrono>
#include <stdexcept>

#include "Samples.h"
#include "TolmLPCFrameDiagnostics.h"
#include "TolmLPCServer/LpcError.h"

namespace trust {

using TolmLPCFrame::LPCData;

namespace {

constexpr int kComesWithinMs = 60'000;

void Answer(const LPCData& request, std::string body) {
  LPCData reply;
  reply.msg_type = TolmLPCFrame::kMsgTypeReply;
  reply.msg_id = request.msg_id;
  reply.dst_id = request.src_id;
  reply.http_mime = request.http_mime;
  reply.body = std::move(body);
  std::uint64_t unused = 0;
  TolmLPCFrame::AsyncSend(unused, reply);
}

}  // namespace

Host::Host(std::string endpoint, const std::vector<std::string>& ids) : endpoint_(std::move(endpoint)) {
  TolmLPCFrame::PlatformInfo info;
  for (const std::string& id : ids) info.plugin_map[id].plugin_id = id;
  TolmLPCFrame::RegisterLpcMsgCallback(Callback, this);
  // What goes wrong here is counted, and not read.
  TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogNothing);
  if (TolmLPCFrame::TolmLPCFrameInit(endpoint_, info) != TolmLPCFrame::kFrameOk) {
    throw std::runtime_error("the frame does not start");
  }
}

Host::~Host() {
  Stop();
}

int Host::Stop() {
  if (!running_) return 0;
  running_ = false;
  return TolmLPCFrame::TolmLPCFrameUnInit();
}

Outcome Host::Call(const std::string& url, std::string_view body, int time_out_ms) const {
  LPCData request;
  request.url = url;
  request.body = body;
  return Call(request, time_out_ms);
}

Outcome Host::Call(const LPCData& request, int time_out_ms) const {
  LPCData response;
  Outcome outcome;
  const auto begin = bench::Clock::now();
  outcome.answered = TolmLPCFrame::SyncSend(response, request, time_out_ms);
  outcome.microseconds = bench::SecondsSince(begin) * 1e6;
  if (!outcome.answered) outcome.code = TolmLPCFrame::GetLPCLastError();
  outcome.body = std::move(response.body);
  return outcome;
}

int Host::Notify(const std::string& url, const std::string& body) {
  LPCData data;
  data.msg_type = TolmLPCFrame::kMsgTypeNotify;
  data.url = url;
  data.body = body;
  std::uint64_t unused = 0;
  return TolmLPCFrame::AsyncSend(unused, data) ? static_cast<int>(lpc::kOk) : TolmLPCFrame::GetLPCLastError();
}

std::uint64_t Host::Events(std::int32_t type, const std::string& id) const {
  const std::lock_guard lock(mutex_);
  const auto found = events_.find({type, id});
  return found == events_.end() ? 0 : found->second;
}

bool Host::AwaitEvents(std::int32_t type, const std::string& id, std::uint64_t count, int time_out_ms) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(time_out_ms), [&] {
    const auto found = events_.find({type, id});
    return found != events_.end() && found->second >= count;
  });
}

void Host::AwaitInited(const std::string& id, std::uint64_t count) const {
  if (!AwaitEvents(TolmLPCFrame::kLpcMsgPluginInited, id, count, kComesWithinMs)) {
    throw std::runtime_error("the plugin " + id + " does not come");
  }
}

void Host::Receive(const LPCData& data) {
  switch (data.msg_type) {
    case TolmLPCFrame::kMsgTypeReply:
      ++answered_later_;
      return;
    case TolmLPCFrame::kMsgTypeRequest:
      if (data.url == kHostEcho) Answer(data, data.body);
      if (data.url == kHostSize) Answer(data, std::to_string(data.body.size()));
      return;
    default:
      if (data.url != kHostCount) return;
      ++notified_;
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return !holds_; });
  }
}

void Host::Hold(bool holds) {
  const std::lock_guard lock(mutex_);
  holds_ = holds;
  changed_.notify_all();
}

bool Host::Callback(const TolmLPCFrame::FrameCallBackData& data, void* user) {
  Host& self = *static_cast<Host*>(user);
  switch (data.LpcMsgType) {
    case TolmLPCFrame::kLpcMsgLpcData:
      self.Receive(data.lpc_data);
      break;
    case TolmLPCFrame::kLpcMsgPush:
      ++self.pushed_;
      break;
    default: {
      const std::lock_guard lock(self.mutex_);
      ++self.events_[{data.LpcMsgType, data.lpc_data.src_id}];
      self.changed_.notify_all();
    }
  }
  return true;
}

}  // namespace trust
