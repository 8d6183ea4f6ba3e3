#include "ScriptedPlugin.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>

#include "Inputs.h"
#include "Path.h"
#include "wire/Frame.h"

namespace instructions {
namespace {

using lpc::wire::FrameType;

constexpr std::intptr_t kListener = 1;
constexpr std::intptr_t kStream = 2;
constexpr std::size_t kThreadsOfLoop = 2;
constexpr auto kLongest = std::chrono::seconds(60);

/// The first frame that is written, in whatever pieces its header is.
lpc::wire::FrameHeader FirstHeader(const os::ConstBuffer* buffers, std::size_t count) {
  char bytes[lpc::wire::kHeaderSize] = {};
  std::size_t size = 0;
  for (std::size_t i = 0; i < count && size < sizeof bytes; ++i) {
    const std::size_t part = std::min(buffers[i].size, sizeof bytes - size);
    std::memcpy(bytes + size, buffers[i].data, part);
    size += part;
  }
  return lpc::wire::DecodeHeader(bytes);
}

const std::string& AnswerTemplate() {
  static const std::string frame = FrameOf(FrameType::kReply, 0, ThreeParams(), Body());
  return frame;
}

/// A request for a url that no plugin serves, which makes it the host's.
const std::string& RequestFrame() {
  static const LpcParams params = {{"method", "POST"}, {"schema", "https"}, {"url", "/host/items/4711"}};
  static const std::string frame = FrameOf(FrameType::kRequest, 4711, params, Body());
  return frame;
}

}  // namespace

class ScriptedPlugin::Endpoint final : public os::Listener {
 public:
  Endpoint() : os::Listener(kListener) {}
  Accepted Accept() override;
};

class ScriptedPlugin::End final : public os::Stream {
 public:
  End() : os::Stream(kStream) {}
  os::IoResult Read(const os::MutableBuffer* buffers, std::size_t count) override {
    const std::lock_guard lock(Get().mutex_);
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t part = Get().ReadLocked(static_cast<char*>(buffers[i].data), buffers[i].size);
      bytes += part;
      if (part < buffers[i].size) break;
    }
    return bytes > 0 ? os::IoResult{os::IoStatus::kDone, bytes} : os::IoResult{os::IoStatus::kWouldBlock};
  }
  os::IoResult Write(const os::ConstBuffer* buffers, std::size_t count) override {
    const std::lock_guard lock(Get().mutex_);
    Get().WrittenLocked(buffers, count);
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < count; ++i) bytes += buffers[i].size;
    return {os::IoStatus::kDone, bytes};
  }
  /// An answer is there as soon as its request is.
  os::StreamState Wait(bool, int) override {
    const std::lock_guard lock(Get().mutex_);
    return {Get().HasToReadLocked(), false};
  }
  void Shutdown() noexcept override {}
  os::PeerIdentity Peer() const override { return {true, 0}; }
};

os::Listener::Accepted ScriptedPlugin::Endpoint::Accept() {
  const std::lock_guard lock(Get().mutex_);
  if (Get().connected_) return {};
  Get().connected_ = true;
  return {std::make_unique<End>(), os::IoStatus::kDone, false, 0};
}

class ScriptedPlugin::Threads final : public os::Poller {
 public:
  bool Arm(os::Pollable& source, std::uint64_t token, unsigned interest) override {
    const std::lock_guard lock(Get().mutex_);
    Get().armed_[source.native()] = {token, (interest & kRead) != 0};
    // The reader looks by itself when it comes back; who is woken for nothing would be counted.
    if (Get().IsReadyLocked(source.native()) && std::this_thread::get_id() != Get().reader_) {
      Get().work_.notify_all();
    }
    return true;
  }
  void Remove(os::Pollable& source) override {
    const std::lock_guard lock(Get().mutex_);
    Get().armed_.erase(source.native());
  }
  std::optional<os::Readiness> Wait(int timeout_ms) override { return Get().WaitForWork(timeout_ms); }
  void Wake(unsigned threads) override {
    const std::lock_guard lock(Get().mutex_);
    Get().wakes_ += threads;
    Get().work_.notify_all();
  }
};

ScriptedPlugin& ScriptedPlugin::Get() {
  static ScriptedPlugin& plugin = *new ScriptedPlugin;
  return plugin;
}

void ScriptedPlugin::Say(const std::string& frames) {
  const std::lock_guard lock(mutex_);
  inbound_ += frames;
  work_.notify_all();
}

void ScriptedPlugin::SendRequests(std::size_t count) {
  std::unique_lock lock(mutex_);
  replies_ = 0;
  requests_left_ = count;
  work_.notify_all();
  WaitUntilQuiet(lock);
  Expect(replies_ == count, "a reply to each request");
}

void ScriptedPlugin::WaitUntilQuiet() {
  std::unique_lock lock(mutex_);
  WaitUntilQuiet(lock);
}

void ScriptedPlugin::WaitUntilQuiet(std::unique_lock<std::mutex>& lock) {
  const bool quiet = rested_.wait_for(
      lock, kLongest, [this] { return resting_ == kThreadsOfLoop && wakes_ == 0 && !HasToReadLocked(); });
  Expect(quiet, "a frame that comes to rest");
}

std::size_t ScriptedPlugin::answered() const {
  const std::lock_guard lock(mutex_);
  return answered_;
}

std::optional<os::Readiness> ScriptedPlugin::WaitForWork(int timeout_ms) {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (wakes_ > 0) {
      --wakes_;
      return std::nullopt;
    }
    if (const auto ready = TakeReadinessLocked()) return ready;
    if (timeout_ms < 0) {
      ++resting_;
      rested_.notify_all();
      work_.wait(lock);
      --resting_;
    } else if (work_.wait_for(lock, std::chrono::milliseconds(timeout_ms)) == std::cv_status::timeout) {
      return std::nullopt;
    }
  }
}

bool ScriptedPlugin::IsReadyLocked(std::intptr_t source) const {
  return armed_.at(source).read && (source == kListener ? !connected_ : HasToReadLocked());
}

std::optional<os::Readiness> ScriptedPlugin::TakeReadinessLocked() {
  const std::thread::id own = std::this_thread::get_id();
  if (reader_ != std::thread::id() && reader_ != own) return std::nullopt;
  for (auto& [source, armed] : armed_) {
    if (!IsReadyLocked(source)) continue;
    armed.read = false;
    reader_ = own;
    return os::Readiness{armed.token, true, false};
  }
  return std::nullopt;
}

std::size_t ScriptedPlugin::ReadLocked(char* to, std::size_t size) {
  if (read_ == inbound_.size() && requests_left_ > 0) {
    --requests_left_;
    inbound_ = RequestFrame();
    read_ = 0;
  }
  const std::size_t part = std::min(size, inbound_.size() - read_);
  std::memcpy(to, inbound_.data() + read_, part);
  read_ += part;
  return part;
}

void ScriptedPlugin::WrittenLocked(const os::ConstBuffer* buffers, std::size_t count) {
  const lpc::wire::FrameHeader header = FirstHeader(buffers, count);
  if (header.type == FrameType::kReply) ++replies_;
  if (header.type != FrameType::kRequest) return;
  ++answered_;
  lpc::wire::FrameHeader answer = lpc::wire::DecodeHeader(AnswerTemplate().data());
  answer.message_id = header.message_id;
  const lpc::wire::HeaderBytes bytes = lpc::wire::EncodeHeader(answer);
  inbound_ = AnswerTemplate();
  std::copy(bytes.begin(), bytes.end(), inbound_.begin());
  read_ = 0;
}

os::EndpointResult<os::Listener> ScriptedPlugin::Listen(const std::string&) {
  return {std::make_unique<Endpoint>(), os::EndpointError::kNone, {}};
}

os::EndpointResult<os::Stream> ScriptedPlugin::Connect(const std::string&) {
  return {nullptr, os::EndpointError::kNobodyListens, "nobody listens"};
}

std::unique_ptr<os::Poller> ScriptedPlugin::CreatePoller() {
  return std::make_unique<Threads>();
}

// What the frame takes for the system's streams.
os::LocalTransport& TransportOfScript() asm("__wrap__ZN2os15SystemTransportEv");

os::LocalTransport& TransportOfScript() {
  return ScriptedPlugin::Get();
}

}  // namespace instructions
