#include "ServerEnd.h"

#include <stdexcept>
#include <utility>

#include "ServerPort.h"
#include "ServerTable.h"

namespace tolm::test {

using Tolm::Net::CHttpServer;
using Tolm::Net::HttpServerRecv;
using Tolm::Net::WebsocketRecv;

std::string Story(const std::vector<SeenEvent>& events) {
  std::string story;
  for (const auto& event : events) {
    if (!story.empty()) story += ", ";
    switch (event.type) {
      case Tolm::Net::kWebsocketHandshake:
        story += "handshake";
        continue;
      case Tolm::Net::kWebsocketClose:
        story += "close";
        continue;
      case Tolm::Net::kWebsocketText:
        story += "text";
        break;
      case Tolm::Net::kWebsocketBinary:
        story += "binary";
        break;
      case Tolm::Net::kWebsocketContinuation:
        story += "continuation";
        break;
      default:
        story += "type " + std::to_string(event.type);
    }
    story += (event.fin ? " '" : "- '") + event.data + "'";
  }
  return story;
}

ServerEnd::ServerEnd(const Tolm::Net::ServerOptions& options, bool take_events) : log_(1) {
  const auto on_http = [this](std::int32_t socket, const HttpServerRecv& recv) {
    const std::lock_guard lock(mutex_);
    requests_.push_back(std::to_string(socket) + " " + recv.method + " " + recv.path);
  };
  // Somebody else may take the port in between.
  int result = -1;
  for (int attempt = 0; attempt < 20 && result != 0; ++attempt) {
    port_ = ServerPort();
    result = Tolm::Net::ServerTable::Instance().Start(handle_, "127.0.0.1", port_, on_http, options);
  }
  if (result != 0) throw std::runtime_error("the server does not start: " + std::to_string(result));
  if (take_events) TakeEvents();
}

ServerEnd::~ServerEnd() {
  Stop();
}

int ServerEnd::Stop() {
  return CHttpServer::StopServer(handle_);
}

int ServerEnd::TakeEvents() {
  return CHttpServer::SetWebSocketServerCallBack(
      handle_, [this](std::int32_t socket, const WebsocketRecv& recv) {
        SeenEvent event{socket, recv.type, recv.fin, recv.status, {}, recv.data != nullptr};
        if (recv.data != nullptr) event.data.assign(recv.data, recv.len);
        {
          const std::lock_guard lock(mutex_);
          events_.push_back(event);
        }
        if (observer_) observer_(event);
      });
}

std::vector<SeenEvent> ServerEnd::Events() const {
  const std::lock_guard lock(mutex_);
  return events_;
}

std::vector<SeenEvent> ServerEnd::EventsOf(std::int32_t socket) const {
  auto events = Events();
  std::erase_if(events, [socket](const SeenEvent& event) { return event.socket != socket; });
  return events;
}

std::size_t ServerEnd::CountOf(std::int32_t type) const {
  const std::lock_guard lock(mutex_);
  std::size_t count = 0;
  for (const auto& event : events_) count += event.type == type ? 1 : 0;
  return count;
}

std::vector<std::string> ServerEnd::Requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

bool ServerEnd::WaitStory(const std::string& story) const {
  return WaitFor([&] { return Story(Events()) == story; }, kLong);
}

bool ServerEnd::WaitCount(std::int32_t type, std::size_t count) const {
  return WaitFor([&] { return CountOf(type) >= count; }, kLong);
}

std::int32_t ServerEnd::WaitSocket(std::size_t count) const {
  if (!WaitCount(Tolm::Net::kWebsocketHandshake, count)) return -1;
  std::int32_t last = -1;
  for (const auto& event : Events()) {
    if (event.type == Tolm::Net::kWebsocketHandshake) last = event.socket;
  }
  return last;
}

}  // namespace tolm::test
