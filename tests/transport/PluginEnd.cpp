#include "PluginEnd.h"

#include <utility>

#include "support/Wait.h"

namespace tolm::test {

PluginEnd::PluginEnd(os::LocalTransport& transport, const std::string& id, Handler handler,
                     const Adjust& adjust)
    : id_(id), handler_(std::move(handler)) {
  lpcclient::Settings settings;
  settings.id = id;
  settings.endpoint = kEndpoint;
  settings.transport = &transport;
  settings.on_connected = [this] { Note("connected", 0, {}); };
  settings.on_disconnected = [this](int error, const std::string& reason) {
    Note("disconnected", error, reason);
  };
  settings.on_connect_failed = [this](int error, const std::string& reason) {
    Note("failed", error, reason);
  };
  if (handler_) {
    settings.on_message = [this](tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info) {
      {
        const std::lock_guard lock(mutex_);
        messages_.push_back({data, info});
        messages_.back().data.lease = nullptr;
      }
      handler_(*this, data);
    };
  }
  if (adjust) adjust(settings);
  client_ = std::make_unique<lpcclient::CLpcClient>(std::move(settings));
  client_->Start();
}

PluginEnd::~PluginEnd() {
  client_->Stop();
}

int PluginEnd::Ask(tag_LPCRequestData request, tag_LPCResponseData& response, int time_out) {
  client_->Send(response, std::move(request), time_out);
  return lpcclient::GetLPCLastError();
}

int PluginEnd::Ask(const std::string& body, std::string* answer, int time_out) {
  tag_LPCResponseData response;
  const int error = Ask({"0", {}, body}, response, time_out);
  if (answer != nullptr) *answer = response.body;
  return error;
}

bool PluginEnd::Answer(const tag_LPCCallBackData& request, const std::string& body) {
  return client_->Reply({request.msg_id, request.src_id, request.params, body});
}

std::vector<PluginEnd::Message> PluginEnd::Messages() const {
  const std::lock_guard lock(mutex_);
  return messages_;
}

std::vector<PluginEnd::Event> PluginEnd::Events() const {
  const std::lock_guard lock(mutex_);
  return events_;
}

std::optional<PluginEnd::Event> PluginEnd::WaitEvent(const std::string& what) const {
  std::optional<Event> found;
  WaitFor(
      [&] {
        for (const Event& event : Events()) {
          if (event.what == what) found = event;
        }
        return found.has_value();
      },
      std::chrono::milliseconds(kLong));
  return found;
}

void PluginEnd::Echo(PluginEnd& plugin, const tag_LPCCallBackData& data) {
  if (data.need_reply) plugin.Answer(data, data.body);
}

void PluginEnd::Note(const std::string& what, int error, const std::string& reason) {
  const std::lock_guard lock(mutex_);
  events_.push_back({what, error, reason, std::chrono::steady_clock::now()});
}

}  // namespace tolm::test
