// What a plugin's end sends, and its interface.

#include "TolmLPCServer/LpcClient.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "LastError.h"
#include "TolmBase/LogLine.h"
#include "client/ClientCore.h"

namespace lpcclient {
namespace {

constexpr char kTag[] = "TolmLPCServer";

template <typename Record>
lpc::wire::OutgoingMessage Outgoing(lpc::wire::FrameType type, std::uint64_t id, const std::string& own_id,
                                    const Record& record, lpc::wire::OutgoingBody body) {
  lpc::wire::OutgoingMessage message;
  message.type = type;
  message.id = id;
  message.dst_id = record.dst_id;
  message.src_id = own_id;
  message.params = &record.params;
  message.body = body;
  return message;
}

}  // namespace

template <typename Operation>
bool CLpcClient::Core::Attempt(Operation&& operation) {
  try {
    const auto link = OpenLink();
    return lpc::Conclude(link ? operation(*link) : static_cast<int>(lpc::kNotConnected));
  } catch (const std::exception& error) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "sending failed: %s", error.what());
    return lpc::Conclude(lpc::kFailed);
  }
}

std::uint64_t CLpcClient::Core::SendRequest(const tag_LPCRequestData& request, lpc::wire::OutgoingBody body) {
  const std::uint64_t id = NextId(false);
  const auto message = Outgoing(lpc::wire::FrameType::kRequest, id, settings_.id, request, body);
  return Attempt([&](lpc::wire::Link& link) { return link.Send(message); }) ? id : 0;
}

bool CLpcClient::Core::SendAndWait(tag_LPCResponseData& response, const tag_LPCRequestData& request,
                                   lpc::wire::OutgoingBody body, int time_out) {
  auto message = Outgoing(lpc::wire::FrameType::kRequest, NextId(true), settings_.id, request, body);
  message.flags = lpc::wire::kFlagWaiting;
  message.time_out_ms = static_cast<std::uint32_t>(std::max(0, time_out));
  return Attempt([&](lpc::wire::Link& link) {
    lpc::wire::InboundMessage reply;
    const int error = link.SendAndWait(message, time_out, reply);
    if (error != lpc::kOk) return error;
    response.src_id = std::move(reply.src_id);
    response.params = std::move(reply.params);
    response.body = std::move(reply.body);
    return error;
  });
}

bool CLpcClient::Core::Notify(const tag_LPCNotifyData& notify, lpc::wire::OutgoingBody body) {
  const auto message = Outgoing(lpc::wire::FrameType::kNotify, 0, settings_.id, notify, body);
  return Attempt([&](lpc::wire::Link& link) { return link.Send(message); });
}

bool CLpcClient::Core::Reply(const tag_LPCReplyData& reply, lpc::wire::OutgoingBody body) {
  const auto message = Outgoing(lpc::wire::FrameType::kReply, reply.msg_id, settings_.id, reply, body);
  return Attempt([&](lpc::wire::Link& link) { return link.Send(message); });
}

bool CLpcClient::Core::Reject(std::uint64_t msg_id, const std::string& reason) {
  return Attempt([&](lpc::wire::Link& link) {
    link.SendNotice(lpc::wire::FrameType::kUndeliverable, msg_id, lpc::kRefused, reason);
    return static_cast<int>(lpc::kOk);
  });
}

// --- the interface ---

CLpcClient::CLpcClient(Settings settings) : core_(std::make_shared<Core>(std::move(settings))) {}

CLpcClient::~CLpcClient() {
  core_->Stop();
}

bool CLpcClient::Start() {
  return lpc::Conclude(core_->Start());
}

bool CLpcClient::WaitConnected(int time_out) const {
  return core_->WaitConnected(time_out);
}

bool CLpcClient::IsConnected() const {
  return core_->IsConnected();
}

void CLpcClient::Stop() {
  core_->Stop();
}

std::uint64_t CLpcClient::Send(tag_LPCRequestData&& request) {
  return core_->SendRequest(request, {request.body, &request.body});
}

std::uint64_t CLpcClient::Send(const tag_LPCRequestData& request, std::string_view body) {
  return core_->SendRequest(request, {body});
}

bool CLpcClient::Send(tag_LPCResponseData& response, tag_LPCRequestData&& request, int time_out) {
  return core_->SendAndWait(response, request, {request.body, &request.body}, time_out);
}

bool CLpcClient::Send(tag_LPCResponseData& response, const tag_LPCRequestData& request, std::string_view body,
                      int time_out) {
  return core_->SendAndWait(response, request, {body}, time_out);
}

bool CLpcClient::Reply(tag_LPCReplyData&& reply) {
  return core_->Reply(reply, {reply.body, &reply.body});
}

bool CLpcClient::Notify(tag_LPCNotifyData&& notify) {
  return core_->Notify(notify, {notify.body, &notify.body});
}

bool CLpcClient::Notify(const tag_LPCNotifyData& notify, std::string_view body) {
  return core_->Notify(notify, {body});
}

bool CLpcClient::Reject(std::uint64_t msg_id, const std::string& reason) {
  return core_->Reject(msg_id, reason);
}

lpc::Statistics CLpcClient::GetStatistics() const {
  return core_->GetStatistics();
}

int GetLPCLastError() {
  return lpc::LastError();
}

void SetLPCLastError(int error) {
  lpc::LastError() = error;
}

}  // namespace lpcclient
