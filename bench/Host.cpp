#include "Host.h"

#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Shapes.h"
#include "TolmLPCFrameDiagnostics.h"
#include "TolmLPCServer/LpcError.h"
#include "Urls.h"

namespace bench {

using TolmLPCFrame::LPCData;

namespace {

constexpr auto kLongest = std::chrono::seconds(30);
constexpr int kCallMs = 10'000;

}  // namespace

Host::Host(const std::string& endpoint, const std::vector<std::string>& ids) {
  TolmLPCFrame::PlatformInfo info;
  for (const std::string& id : ids) info.plugin_map[id].plugin_id = id;
  TolmLPCFrame::RegisterLpcMsgCallback(Callback, this);
  // There is no LpcFrame.xml beside this program and hence no guard, so that both stay out of the figures;
  // the frame would say so again and again.
  TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogNothing);
  if (TolmLPCFrame::TolmLPCFrameInit(endpoint, info) != TolmLPCFrame::kFrameOk) {
    throw std::runtime_error("the frame does not start");
  }
}

void Host::WaitForPlugin(const std::string& id) {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, kLongest, [&] { return inited_.contains(id); })) {
    throw std::runtime_error("the plugin " + id + " does not come");
  }
}

void Host::WaitForConnections(std::size_t count) {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, kLongest, [&] { return connections_ >= count; })) {
    throw std::runtime_error("the plugins do not come");
  }
}

std::string Host::Call(const std::string& url, const std::string& body) const {
  LPCData request;
  request.url = url;
  request.body = body;
  LPCData response;
  if (!TolmLPCFrame::SyncSend(response, request, kCallMs)) {
    throw std::runtime_error("no answer from " + url + ": error " +
                             std::to_string(TolmLPCFrame::GetLPCLastError()));
  }
  return std::move(response.body);
}

std::vector<double> Host::Calls(const std::string& url, const Order& order) {
  LPCData request;
  request.url = url;
  Fill(order, request.http_headers, request.http_mime, request.body);
  return runner_.Run<LPCData>(order, [&](LPCData& response) {
    if (!TolmLPCFrame::SyncSend(response, request, kCallMs))
      throw std::runtime_error("no answer from " + url);
    Check(order, response.http_headers, response.http_mime, response.body);
  });
}

void Host::Answer(const LPCData& request) {
  LPCData reply;
  reply.msg_type = TolmLPCFrame::kMsgTypeReply;
  reply.msg_id = request.msg_id;
  reply.dst_id = request.src_id;
  reply.http_headers = request.http_headers;
  reply.http_mime = request.http_mime;
  reply.body = request.body;
  std::uint64_t unused = 0;
  TolmLPCFrame::AsyncSend(unused, reply);
}

bool Host::Callback(const TolmLPCFrame::FrameCallBackData& data, void* user) {
  auto& host = *static_cast<Host*>(user);
  if (data.LpcMsgType == TolmLPCFrame::kLpcMsgPluginInited) {
    const std::lock_guard lock(host.mutex_);
    host.inited_.insert(data.lpc_data.src_id);
    host.changed_.notify_all();
  } else if (data.LpcMsgType == TolmLPCFrame::kLpcMsgPluginConnected) {
    const std::lock_guard lock(host.mutex_);
    ++host.connections_;
    host.changed_.notify_all();
  } else if (data.LpcMsgType == TolmLPCFrame::kLpcMsgLpcData) {
    if (data.lpc_data.msg_type == TolmLPCFrame::kMsgTypeRequest) {
      host.Answer(data.lpc_data);
    } else if (data.lpc_data.url == kHostCountUrl) {
      host.counter_.Count();
    }
  } else if (data.LpcMsgType == TolmLPCFrame::kLpcMsgPush) {
    host.counter_.Count();
  }
  return true;
}

void MustNotify(const LPCData& notification) {
  std::uint64_t unused = 0;
  while (!TolmLPCFrame::AsyncSend(unused, notification)) {
    if (TolmLPCFrame::GetLPCLastError() != lpc::kQueueFull) throw std::runtime_error("a notification failed");
    std::this_thread::yield();
  }
}

}  // namespace bench
