#include "FrameEnd.h"

#include <utility>

#include "support/Wait.h"

namespace tolm::test {

FrameEnd::FrameEnd(os::LocalTransport& transport, const lpc::Options& options, Handler handler)
    : handler_(std::move(handler)),
      core_(std::make_shared<lpc::ServerCore>(transport, options, [this](const tag_LPCCallBackData& data) {
        {
          const std::lock_guard lock(mutex_);
          records_.push_back(data);
          records_.back().lease = nullptr;
        }
        if (!handler_) return false;
        handler_(*this, data);
        return true;
      })) {}

FrameEnd::~FrameEnd() {
  core_->Stop();
}

int FrameEnd::Ask(tag_LPCRequestData request, tag_LPCResponseData& response, int time_out) {
  return core_->SendAndWait(response, request, {request.body, &request.body}, "/test", time_out);
}

int FrameEnd::Ask(const std::string& id, const std::string& body, std::string* answer, int time_out) {
  tag_LPCResponseData response;
  const int error = Ask({id, {}, body}, response, time_out);
  if (answer != nullptr) *answer = response.body;
  return error;
}

std::uint64_t FrameEnd::Request(const std::string& id, const std::string& body) {
  int error = 0;
  return core_->Send({id, {}, {}}, {body}, error);
}

int FrameEnd::Notify(const std::string& id, const std::string& body) {
  return core_->Notify({id, {}, {}}, {body});
}

int FrameEnd::Answer(const tag_LPCCallBackData& request, const std::string& body) {
  return core_->Reply({request.msg_id, request.src_id, request.params, {}}, {body});
}

std::vector<tag_LPCCallBackData> FrameEnd::Records() const {
  const std::lock_guard lock(mutex_);
  return records_;
}

std::vector<tag_LPCCallBackData> FrameEnd::Messages() const {
  std::vector<tag_LPCCallBackData> records = Records();
  std::erase_if(records, [](const tag_LPCCallBackData& data) { return !StatusIn(data).empty(); });
  return records;
}

std::vector<std::string> FrameEnd::StatusesOf(const std::string& id) const {
  std::vector<std::string> statuses;
  for (const tag_LPCCallBackData& data : Records()) {
    if (data.src_id == id && !StatusIn(data).empty()) statuses.push_back(StatusIn(data));
  }
  return statuses;
}

bool FrameEnd::WaitStatus(const std::string& id, const std::string& status) const {
  return WaitFor(
      [&] {
        const auto statuses = StatusesOf(id);
        return !statuses.empty() && statuses.back() == status;
      },
      std::chrono::milliseconds(kLong));
}

void FrameEnd::Echo(FrameEnd& frame, const tag_LPCCallBackData& data) {
  if (data.need_reply) frame.Answer(data, data.body);
}

std::string FrameEnd::StatusIn(const tag_LPCCallBackData& data) {
  if (data.body.find(R"("method":"connectionStatusChanged")") == std::string::npos) return {};
  return data.body.find(R"("status":"connected")") != std::string::npos ? "connected" : "disconnected";
}

}  // namespace tolm::test
