// A frame's bytes on a connection to a plugin's end of the transport: what the plugin says keeps to the
// protocol, its owner is told of each connection once at its beginning and once at its end, and it connects
// again.

#include <atomic>
#include <mutex>

#include "TolmLPCServer/LpcClient.h"
#include "support/CountedTransport.h"
#include "support/OtherEnd.h"
#include "support/SilentLog.h"

namespace {

using fuzz::Require;

constexpr char kEndpoint[] = "frame";

class Plugin {
 public:
  Plugin() : transport_(*inner_, count_), listener_(inner_->Listen(kEndpoint).value) {
    lpcclient::Settings settings;
    settings.id = "plugin";
    settings.endpoint = kEndpoint;
    settings.transport = &transport_;
    settings.options.max_message_bytes = 64 << 10;
    settings.options.max_params = 16;
    settings.options.max_inbound_bytes = 16 << 10;
    // At once: the fuzzer waits for it.
    settings.reconnect_first_ms = 0;
    settings.reconnect_cap_ms = 0;
    settings.on_connected = [this] {
      Require(++connections_ == 1, "one connection at a time");
      client_->Send(tag_LPCRequestData{"0", {{"url", "/clock/now"}}, {}});
    };
    settings.on_disconnected = [this](int error, const std::string&) {
      Require(--connections_ == 0 && error != lpc::kOk, "an end has a beginning and a reason");
    };
    settings.on_connect_failed = [](int error, const std::string& reason) {
      Require(error != lpc::kOk && !reason.empty(), "a failure has a reason");
    };
    settings.on_message = [this](tag_LPCCallBackData&& data, const lpcclient::InboundInfo& info) {
      Require(info.time_out_ms >= 0, "a time is one");
      tag_LPCReplyData reply{data.msg_id, data.src_id, std::move(data.params), std::move(data.body)};
      if (data.need_reply) client_->Reply(std::move(reply));
    };
    client_ = std::make_unique<lpcclient::CLpcClient>(std::move(settings));
    Require(client_->Start(), "a plugin starts");
  }
  ~Plugin() { client_->Stop(); }

  /// The plugin's next connection.
  std::unique_ptr<os::Stream> Accept() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    for (;;) {
      auto accepted = listener_->Accept();
      if (accepted.stream) return std::move(accepted.stream);
      Require(std::chrono::steady_clock::now() < end, "it connects again");
      std::this_thread::yield();
    }
  }
  std::uint64_t Ended() const { return count_.gone(); }
  void RequireEnded(std::uint64_t count) {
    Require(count_.WaitGone(count), "a connection that has ended is forgotten");
  }

 private:
  const std::unique_ptr<os::LocalTransport> inner_ = os::CreateMemoryTransport();
  fuzz::StreamCount count_;
  fuzz::CountedTransport transport_;
  const std::unique_ptr<os::Listener> listener_;
  std::atomic<int> connections_{0};
  std::unique_ptr<lpcclient::CLpcClient> client_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Plugin plugin;
  fuzz::Input input(data, size);
  const unsigned mode = input.Byte();
  const std::uint64_t ended = plugin.Ended();
  fuzz::OtherEnd frame(plugin.Accept());
  while (frame.frames() == 0 && frame.TakeAnswers()) std::this_thread::yield();  // its HELLO
  if ((mode & 1) != 0) {
    lpc::wire::Welcome welcome;
    welcome.max_message_bytes = mode < 128 ? 128U << 20 : 40;
    frame.Write(fuzz::FrameBytes(lpc::wire::FrameType::kWelcome, EncodeWelcome(welcome)));
    while ((mode & 2) != 0 && frame.frames() < 2 && welcome.max_message_bytes > 40 && frame.TakeAnswers()) {
      std::this_thread::yield();  // its request
    }
  }
  const std::size_t piece = (mode & 4) != 0 ? 1 + mode / 8 : size + 1;
  while (!input.empty()) frame.Write(input.Bytes(piece));
  frame.TakeAnswers();
  frame.Kill();
  plugin.RequireEnded(ended + 1);
  return 0;
}
