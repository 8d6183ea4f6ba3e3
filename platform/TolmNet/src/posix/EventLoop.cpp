#include "EventLoop.h"

#include <libwebsockets.h>
#include <sys/resource.h>

#include <mutex>
#include <new>
#include <string_view>

#include "PipeSignal.h"
#include "ServerOptions.h"
#include "TolmBase/LogLine.h"

namespace Tolm::Net {
namespace {

using Base::kLogLevelError;

// What one read takes at most.
constexpr unsigned int kReadBytes = 64U * 1024;
// Of the tables that libwebsockets makes for as many descriptors as the process may have, which some
// systems set to a thousand million.
constexpr unsigned int kMaxDescriptors = 64U * 1024;

// What libwebsockets says goes to our log, and only what it calls an error; for all of the process, since
// it has no other way.
void LogLine(int, const char* text) {
  std::string_view line(text);
  while (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  TOLM_LOG(kLogLevelError, kLogTag, "%.*s", static_cast<int>(line.size()), line.data());
}

void TakeLibraryLog() {
  static std::once_flag once;
  std::call_once(once, [] { lws_set_log_level(LLL_ERR, LogLine); });
}

/// 0 when nobody knows.
rlim_t DescriptorLimit() {
  rlimit limit{};
  return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
}

/// libwebsockets is the event loop here: it polls, reads, keeps time and is woken by other threads. Its own
/// WebSocket role is not used: that takes frames without a mask, makes a second copy of what a socket
/// does not take at once and so hides whether a peer reads, and its listener spins when the process has
/// no descriptors left.
class LibraryLoop final : public EventLoop {
 public:
  explicit LibraryLoop(Handler& handler) : handler_(handler) { timer_.loop = this; }
  ~LibraryLoop() override {
    if (context_ != nullptr) lws_context_destroy(context_);
  }

  bool Open(Socket listener);

  bool Turn() override { return lws_service(context_, 0) >= 0; }
  void Wake() override { lws_cancel_service(context_); }
  void TickIn(std::chrono::milliseconds time) override {
    lws_sul_schedule(context_, 0, &timer_.timer, OnTimer, time.count() * LWS_US_PER_MS);
  }

  void SetListening(bool on) override { lws_rx_flow_control(listener_, on ? 1 : 0); }
  bool Add(Client& client, Socket socket) override;
  void SetReading(Client& client, bool on) override { lws_rx_flow_control(Wsi(client), on ? 1 : 0); }
  void AskForRoom(Client& client) override { lws_callback_on_writable(Wsi(client)); }
  void CloseSoon(Client& client) override {
    lws_set_timeout(Wsi(client), PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
  }

 private:
  struct Timer {
    lws_sorted_usec_list_t timer;  // first: the timer's address is this one's
    LibraryLoop* loop;
  };

  static lws* Wsi(Client& client) { return static_cast<lws*>(Place(client)); }
  static int OnEvent(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len);
  static void OnTimer(lws_sorted_usec_list_t* timer);

  bool HasPlaceFor(Socket socket) const { return !is_bound_ || static_cast<rlim_t>(socket) < bound_; }
  bool MakeContext();
  bool IsWakeable();

  Handler& handler_;
  lws_context* context_ = nullptr;
  lws* listener_ = nullptr;
  bool wakeable_ = false;
  // The library's tables end where the process's limit was when they were made.
  bool is_bound_ = false;
  rlim_t bound_ = 0;
  Timer timer_{};
};

bool LibraryLoop::Open(Socket listener) {
  if (MakeContext() && IsWakeable()) {
    lws_sock_file_fd_type descriptor{};
    descriptor.filefd = static_cast<int>(listener);
    listener_ = lws_adopt_descriptor_vhost(lws_get_vhost_by_name(context_, "default"),
                                           LWS_ADOPT_RAW_FILE_DESC, descriptor, nullptr, nullptr);
  }
  if (listener_ == nullptr) Close(listener);
  return listener_ != nullptr;
}

bool LibraryLoop::MakeContext() {
  static const lws_protocols kProtocols[] = {{"", OnEvent, 0, 0, 0, nullptr, 0},
                                             {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
  lws_context_creation_info info{};
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.protocols = kProtocols;
  info.user = this;
  info.pt_serv_buf_size = kReadBytes;
  info.gid = -1;
  info.uid = -1;
  info.options = LWS_SERVER_OPTION_SKIP_SERVER_CANONICAL_NAME | LWS_SERVER_OPTION_DISABLE_OS_CA_CERTS;
  bound_ = DescriptorLimit();
  is_bound_ = bound_ > 0 && bound_ <= kMaxDescriptors;
  if (bound_ > kMaxDescriptors) info.fd_limit_per_thread = kMaxDescriptors;
  TakeLibraryLog();
  const PipeSignalKept kept;
  context_ = lws_create_context(&info);
  return context_ != nullptr;
}

// A context is made also when there is no descriptor left for waking it; it could then not be stopped.
bool LibraryLoop::IsWakeable() {
  lws_cancel_service(context_);
  lws_sorted_usec_list_t timer{};  // ends the wait if nothing else does
  lws_sul_schedule(
      context_, 0, &timer, [](lws_sorted_usec_list_t*) {}, LWS_US_PER_MS);
  lws_service(context_, 0);
  lws_sul_schedule(context_, 0, &timer, nullptr, LWS_SET_TIMER_USEC_CANCEL);
  return wakeable_;
}

bool LibraryLoop::Add(Client& client, Socket socket) {
  if (!HasPlaceFor(socket)) {  // the library would complain each time
    Close(socket);
    return false;
  }
  lws_adopt_desc_t description{};
  description.vh = lws_get_vhost_by_name(context_, "default");
  description.type = LWS_ADOPT_SOCKET;
  description.fd.sockfd = static_cast<int>(socket);
  description.opaque = &client;
  lws* const wsi = lws_adopt_descriptor_vhost_via_info(&description);
  if (wsi != nullptr) Place(client) = wsi;
  return wsi != nullptr;
}

int LibraryLoop::OnEvent(lws* wsi, lws_callback_reasons reason, void*, void* in, std::size_t len) {
  // Not to be asked for with every reason: some have no connection.
  const auto loop = [wsi] { return static_cast<LibraryLoop*>(lws_context_user(lws_get_context(wsi))); };
  Event event{};
  switch (reason) {
    case LWS_CALLBACK_RAW_RX_FILE:
      loop()->handler_.OnListener();
      return 0;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
      loop()->wakeable_ = true;
      return 0;
    case LWS_CALLBACK_RAW_RX:
      event = Event::kBytes;
      break;
    case LWS_CALLBACK_RAW_WRITEABLE:
      event = Event::kRoom;
      break;
    case LWS_CALLBACK_RAW_CLOSE:
      event = Event::kClosed;
      break;
    default:
      return 0;
  }
  auto* const client = static_cast<Client*>(lws_get_opaque_user_data(wsi));
  if (client == nullptr) return -1;
  return loop()->handler_.OnClient(*client, event, static_cast<const char*>(in), len) ? 0 : -1;
}

void LibraryLoop::OnTimer(lws_sorted_usec_list_t* timer) {
  reinterpret_cast<Timer*>(timer)->loop->handler_.OnTick();
}

}  // namespace

std::unique_ptr<EventLoop> EventLoop::Make(Handler& handler, Socket listener) {
  std::unique_ptr<LibraryLoop> loop(new (std::nothrow) LibraryLoop(handler));
  if (loop == nullptr) {
    Close(listener);
    return nullptr;
  }
  if (!loop->Open(listener)) return nullptr;
  return loop;
}

}  // namespace Tolm::Net
