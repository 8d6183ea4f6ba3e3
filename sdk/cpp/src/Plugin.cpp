#include "TolmPlugin/Plugin.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include "MessageRecords.h"
#include "PluginCore.h"
#include "TolmBase/LogLine.h"
#include "TolmLPCServer/LpcError.h"
#include "common/Constants.h"

namespace TolmPlugin {

Plugin::Plugin(std::string id, std::string description)
    : core_(std::make_shared<Core>(std::move(id), std::move(description))) {}

Plugin::~Plugin() {
  core_->Stop();
}

Plugin& Plugin::Serve(const std::string& url, Handler handler, int time_out_ms) {
  core_->urls.Add(url, std::move(handler), time_out_ms);
  return *this;
}

Plugin& Plugin::UseHeaders(std::vector<std::string> names) {
  core_->header_names = std::move(names);
  return *this;
}

Plugin& Plugin::OnInit(std::function<void()> hook) {
  core_->on_init = std::move(hook);
  return *this;
}

Plugin& Plugin::OnUninit(std::function<void()> hook) {
  core_->on_uninit = std::move(hook);
  return *this;
}

Plugin& Plugin::OnReady(std::function<void()> hook) {
  core_->on_ready = std::move(hook);
  return *this;
}

Plugin& Plugin::OnLost(std::function<void(const std::string& reason)> hook) {
  core_->on_lost = std::move(hook);
  return *this;
}

Plugin& Plugin::OnAnswer(AnswerHandler handler) {
  core_->on_answer = std::move(handler);
  return *this;
}

bool Plugin::Start(const std::string& endpoint) {
  return core_->Start(endpoint);
}

bool Plugin::WaitReady(int time_out_ms) const {
  return core_->WaitReady(time_out_ms);
}

void Plugin::WaitEnd() const {
  core_->WaitEnd();
}

void Plugin::Stop() {
  core_->Stop();
}

const std::string& Plugin::id() const {
  return core_->id;
}

int Plugin::LastError() {
  return lpcclient::GetLPCLastError();
}

namespace {

constexpr char kTag[] = "TolmPlugin";
/// The frame waits for another plugin's answer for as long as this param says.
constexpr char kKeyTimeout[] = "timeout";

/// All but the body.
template <typename Record>
Record ToFrame(const Message& message) {
  Record record;
  record.dst_id = TolmLPCFrame::kMainCompnentID;
  record.params = ToParams(message);
  return record;
}

/// What `operation` gives; when it throws, nothing, with a reason for LastError.
template <typename Operation>
auto Attempt(const std::unique_ptr<lpcclient::CLpcClient>& client, Operation&& operation) noexcept
    -> decltype(operation(*client)) {
  if (!client) {
    lpcclient::SetLPCLastError(lpc::kNotConnected);
    return {};
  }
  try {
    return operation(*client);
  } catch (const std::exception& error) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "a message is not sent, or its answer not taken: %s",
             error.what());
    lpcclient::SetLPCLastError(lpc::kFailed);
    return {};
  }
}

}  // namespace

bool Plugin::Call(Message& answer, const Message& request, int time_out_ms) {
  return Attempt(core_->client, [&](lpcclient::CLpcClient& client) {
    auto record = ToFrame<tag_LPCRequestData>(request);
    record.params.emplace(kKeyTimeout, std::to_string(std::max(0, time_out_ms)));
    tag_LPCResponseData response;
    if (!client.Send(response, record, request.body, time_out_ms)) return false;
    answer = ToMessage(response.params, std::move(response.body));
    return true;
  });
}

std::uint64_t Plugin::CallLater(const Message& request) {
  return Attempt(core_->client, [&](lpcclient::CLpcClient& client) {
    return client.Send(ToFrame<tag_LPCRequestData>(request), request.body);
  });
}

bool Plugin::Notify(const Message& message) {
  return Attempt(core_->client, [&](lpcclient::CLpcClient& client) {
    return client.Notify(ToFrame<tag_LPCNotifyData>(message), message.body);
  });
}

bool Plugin::Push(const std::string& tag, const Message& message) {
  return Attempt(core_->client, [&](lpcclient::CLpcClient& client) {
    auto record = ToFrame<tag_LPCNotifyData>(message);
    record.params.erase(TolmLPCFrame::kKeyUrl);
    record.params.emplace(TolmLPCFrame::kKeyPushMsgTag, tag);
    return client.Notify(record, message.body);
  });
}

}  // namespace TolmPlugin
