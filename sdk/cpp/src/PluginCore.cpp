#include "PluginCore.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <new>
#include <optional>

#include "MessageRecords.h"
#include "TolmBase/GuidUtil.h"
#include "TolmBase/LogLine.h"
#include "TolmProto/RapidJsonProto.h"
#include "common/Constants.h"
#include "common/MessageJson.h"
#include "common/UrlTemplate.h"
#include "os/Mutex.h"

namespace TolmPlugin {
namespace {

constexpr char kTag[] = "TolmPlugin";
constexpr char kRegisterUrl[] = "/QOMI/Vantrel/Integration/V1/Register";
/// The url of answers to requests for which nobody waits, by which they reach the host's callback.
constexpr char kMessagesUrl[] = "/QOMI/Vantrel/Integration/V1/Messages";

std::string MethodBody(const char* method) {
  proto::CRapidJsonProto body;
  body.set_v("/method", method);
  return body.get_str(0);
}

// How long a plugin waits for its registration to be in force before it asks, and then asks again.
constexpr std::chrono::microseconds kShortestPause(250);
constexpr std::chrono::microseconds kPauseForUrl(10);
constexpr std::chrono::microseconds kUsualPause = std::chrono::milliseconds(3);
constexpr std::chrono::microseconds kLongestPause = std::chrono::milliseconds(500);
constexpr std::chrono::milliseconds kPauseWhenRefused(20);

/// Registrations of many urls take the frame longer.
std::chrono::microseconds FirstPause(std::size_t urls) {
  const auto counted = static_cast<int>(std::min<std::size_t>(urls, 1000));
  return std::min(kShortestPause + counted * kPauseForUrl, kUsualPause);
}

/// Runs a function and gives what it threw, as a text; nothing when it returned.
template <typename Function>
std::optional<std::string> WhatItThrew(Function&& function) noexcept {
  const char* const needs_no_memory = "memory is short";
  try {
    function();
    return std::nullopt;
  } catch (const std::bad_alloc&) {
    return needs_no_memory;
  } catch (const std::exception& error) {
    try {
      return error.what();
    } catch (const std::bad_alloc&) {
      return needs_no_memory;
    }
  } catch (...) {
    return "unknown reason";
  }
}

}  // namespace

bool Plugin::Core::Start(const std::string& endpoint) {
  if (client) return false;
  bool started = false;
  const auto thrown = WhatItThrew([&] { started = StartOrThrow(endpoint); });
  if (started) return true;
  const int error = thrown ? static_cast<int>(lpc::kFailed) : lpcclient::GetLPCLastError();
  if (thrown) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "the plugin does not start: %s", thrown->c_str());
  }
  if (client) client->Stop();
  client.reset();
  lpcclient::SetLPCLastError(error);
  return false;
}

bool Plugin::Core::StartOrThrow(const std::string& endpoint) {
  own_url_ = OwnUrl(id);
  lpcclient::Settings settings;
  settings.id = id;
  settings.endpoint = endpoint;
  // The client is stopped before this object goes.
  settings.on_connected = [this] { Connected(); };
  settings.on_disconnected = [this](int, const std::string& reason) { Disconnected(reason); };
  settings.on_connect_failed = on_connect_failed;
  settings.on_message = [this](tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info) {
    Received(std::move(data), info);
  };
  client = std::make_unique<lpcclient::CLpcClient>(std::move(settings));
  if (!client->Start()) return false;
  // Its first hook may call Stop at once, and nobody waits for it then.
  const os::MutexLock lock(mutex_);
  registrar_ = std::thread([self = shared_from_this()] { self->RegisterAgainAndAgain(); });
  return true;
}

bool Plugin::Core::WaitReady(int time_out_ms) const {
  os::UniqueLock lock(mutex_);
  changed_.wait_for(lock, std::chrono::milliseconds(std::max(0, time_out_ms)),
                    [this]() TOLM_REQUIRES(mutex_) { return ready_ || stopping_; });
  return ready_ && !stopping_;
}

void Plugin::Core::WaitEnd() const {
  os::UniqueLock lock(mutex_);
  changed_.wait(lock, [this]() TOLM_REQUIRES(mutex_) { return ended_ || stopping_; });
}

void Plugin::Core::RequestEnd() {
  const os::MutexLock lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

void Plugin::Core::Stop() {
  std::thread registrar;
  {
    const os::MutexLock lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
    if (registrar_.joinable()) registrar = std::move(registrar_);
  }
  if (client) client->Stop();
  if (!registrar.joinable()) return;
  if (registrar.get_id() == std::this_thread::get_id()) {
    registrar.detach();  // a hook called Stop; the thread ends when the hook returns
  } else {
    registrar.join();
  }
}

// --- the connection, and the registration on it ---

void Plugin::Core::Connected() {
  const os::MutexLock lock(mutex_);
  ++connection_;
  connected_ = true;
  confirmed_ = false;
  uniniting_ = false;  // another frame may ask, too
  changed_.notify_all();
}

void Plugin::Core::Disconnected(const std::string& reason) {
  {
    const os::MutexLock lock(mutex_);
    connected_ = false;
    ready_ = false;
    changed_.notify_all();
  }
  if (on_lost) on_lost(reason);
}

void Plugin::Core::RegisterAgainAndAgain() {
  const auto began = std::chrono::steady_clock::now();
  if (const auto thrown = WhatItThrew([this] {
        if (on_init) on_init();
      })) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "the init hook failed, so the plugin is never ready: %s",
             thrown->c_str());
    return;
  }
  const auto cost =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - began);

  int done = 0;  // the latest connection that was registered
  for (;;) {
    int connection = 0;
    {
      os::UniqueLock lock(mutex_);
      changed_.wait(lock,
                    [&]() TOLM_REQUIRES(mutex_) { return stopping_ || (connected_ && connection_ != done); });
      if (stopping_) return;
      connection = connection_;
    }
    bool registered = false;
    if (const auto thrown =
            WhatItThrew([&] { registered = RegisterAndConfirm(connection) && ReportInitFinish(cost); })) {
      TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "registering failed, and is tried again: %s",
               thrown->c_str());
    }
    if (!registered) {
      // The queue may be full of the plugin's own messages: the connection stands, and it is tried again.
      os::UniqueLock lock(mutex_);
      changed_.wait_for(lock, kPauseWhenRefused,
                        [&]() TOLM_REQUIRES(mutex_) { return !StillLocked(connection); });
      continue;
    }
    done = connection;
    {
      const os::MutexLock lock(mutex_);
      if (!StillLocked(connection)) continue;
      ready_ = true;
      changed_.notify_all();
    }
    if (const auto thrown = WhatItThrew([this] {
          if (on_ready) on_ready();
        })) {
      TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "the ready hook failed: %s", thrown->c_str());
    }
  }
}

// The frame handles two messages of one plugin in any order. A notification to a url of this plugin's
// own comes back only when the registration before it is in force; one that overtakes it goes to the
// host, which is why the first one waits a little. A frame that has nothing else to do is ready by then; for
// others a second one soon would only be one more that goes to the host.
bool Plugin::Core::RegisterAndConfirm(int connection) {
  tag_LPCNotifyData registration;
  registration.dst_id = TolmLPCFrame::kMainCompnentID;
  registration.params[TolmLPCFrame::kKeyUrl] = kRegisterUrl;
  registration.body = RegistrationBody(urls, own_url_, header_names);
  const std::string nonce = Tolm::Base::GuidUtil::CreateGuid();
  {
    const os::MutexLock lock(mutex_);
    awaited_nonce_ = nonce;
    confirmed_ = false;
  }
  if (!client->Notify(std::move(registration))) return false;

  std::chrono::microseconds pause = FirstPause(urls.entries().size());
  for (std::chrono::microseconds next = kUsualPause;;
       pause = next, next = std::min(2 * next, kLongestPause)) {
    {
      os::UniqueLock lock(mutex_);
      changed_.wait_for(lock, pause,
                        [&]() TOLM_REQUIRES(mutex_) { return confirmed_ || !StillLocked(connection); });
      if (!StillLocked(connection)) return false;
      if (confirmed_) return true;
    }
    tag_LPCNotifyData question;
    question.dst_id = TolmLPCFrame::kMainCompnentID;
    question.params[TolmLPCFrame::kKeyUrl] = own_url_;
    question.body = nonce;
    if (!client->Notify(std::move(question))) return false;
  }
}

bool Plugin::Core::ReportInitFinish(std::chrono::milliseconds cost) const {
  proto::CRapidJsonProto message;
  message.set_v("/method", "InitFinish");
  message.set_v("/Data/InitCostTime", static_cast<int>(cost.count()));
  tag_LPCNotifyData finished;
  finished.dst_id = TolmLPCFrame::kMainCompnentID;
  finished.body = message.get_str(0);
  return client->Notify(std::move(finished));
}

// --- what arrives ---

void Plugin::Core::Received(tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info) {
  const std::uint64_t request_id = data.msg_id;
  const bool wants_answer = data.need_reply;
  const auto thrown = WhatItThrew([&] { Handle(std::move(data), info); });
  if (!thrown) return;
  TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "handling a message failed: %s",
           TolmLPCFrame::MaskSidInUrl(*thrown).c_str());
  // Whoever waits for the answer need not do so until the time-out.
  if (wants_answer) client->Reject(request_id, TolmLPCFrame::MaskSidInUrl(*thrown));
}

void Plugin::Core::Handle(tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info) {
  if (data.is_reply) {
    if (on_answer) on_answer(data.msg_id, ToMessage(data.params, std::move(data.body)));
    return;
  }
  const auto url = data.params.find(TolmLPCFrame::kKeyUrl);
  if (url == data.params.end() || url->second.empty()) {
    MethodReceived(data);
    return;
  }
  if (url->second == own_url_) {
    const os::MutexLock lock(mutex_);
    if (data.body == awaited_nonce_) confirmed_ = true;
    changed_.notify_all();
    return;
  }
  Serve(std::move(data), info);
}

void Plugin::Core::Serve(tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info) const {
  tag_LPCReplyData reply;
  reply.msg_id = data.msg_id;
  reply.dst_id = data.src_id;
  const bool wants_answer = data.need_reply;
  Request request = ToRequest(std::move(data), info);
  const std::string url = request.message.url;  // the handler may take the rest
  const Handler* const handler = urls.Find(url);
  if (handler == nullptr) {
    TOLM_LOG(Tolm::Base::kLogLevelWarning, kTag, "nothing serves url [%s]",
             TolmLPCFrame::MaskSidInUrl(url).c_str());
    if (wants_answer)
      client->Reject(reply.msg_id, "this plugin does not serve " + TolmLPCFrame::MaskSidInUrl(url));
    return;
  }
  Message answer;
  if (const auto thrown = WhatItThrew([&] { answer = (*handler)(std::move(request)); })) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "the handler of url [%s] failed: %s",
             TolmLPCFrame::MaskSidInUrl(url).c_str(), TolmLPCFrame::MaskSidInUrl(*thrown).c_str());
    if (wants_answer)
      client->Reject(reply.msg_id, "the handler failed: " + TolmLPCFrame::MaskSidInUrl(*thrown));
    return;
  }
  if (!wants_answer) return;
  if (!info.sender_waits) answer.url = kMessagesUrl;
  reply.params = ToParams(answer);
  reply.body = std::move(answer.body);
  const std::uint64_t request_id = reply.msg_id;
  if (!client->Reply(std::move(reply))) {
    const char* const why = lpc::ErrorText(lpcclient::GetLPCLastError());
    TOLM_LOG(Tolm::Base::kLogLevelWarning, kTag, "the answer for url [%s] could not be sent: %s",
             TolmLPCFrame::MaskSidInUrl(url).c_str(), why);
    // Whoever waits for it need not do so until the time-out.
    client->Reject(request_id, std::string("the answer could not be sent: ") + why);
  }
}

void Plugin::Core::MethodReceived(const tag_LPCCallBackData& data) {
  proto::CRapidJsonProto message;
  TolmLPCFrame::ReadMessage(message, data.body);
  const std::string method = message.get_v("/method", "");
  if (method == "Uninit") {
    Uninit();
  } else {
    TOLM_LOG(Tolm::Base::kLogLevelWarning, kTag, "unknown method [%s]", method.c_str());
    if (data.need_reply) client->Reject(data.msg_id, "a message without url, and with an unknown method");
  }
}

void Plugin::Core::Uninit() {
  {
    const os::MutexLock lock(mutex_);
    if (std::exchange(uniniting_, true)) return;  // asked again; the answer is on its way
  }
  if (const auto thrown = WhatItThrew([this] {
        if (on_uninit) on_uninit();
      })) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "the uninit hook failed: %s", thrown->c_str());
  }
  bool reported = false;
  const auto thrown = WhatItThrew([&] {
    tag_LPCNotifyData finished;
    finished.dst_id = TolmLPCFrame::kMainCompnentID;
    finished.body = MethodBody("UninitFinish");
    reported = client->Notify(std::move(finished));
  });
  if (!reported) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "the end cannot be reported: %s",
             thrown ? thrown->c_str() : lpc::ErrorText(lpcclient::GetLPCLastError()));
  }
  RequestEnd();
}

}  // namespace TolmPlugin
