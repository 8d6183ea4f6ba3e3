// A plugin's bytes on a connection to the frame's end of the transport: what comes back keeps to the
// protocol, the host is told of each connection once at its beginning and once at its end, nothing of the
// connection stays, and a plugin that behaves is served all the while.

#include <map>
#include <mutex>

#include "TolmLPCServer/LpcClient.h"
#include "server/ServerCore.h"
#include "support/CountedTransport.h"
#include "support/OtherEnd.h"
#include "support/SilentLog.h"

namespace {

using fuzz::Require;

constexpr char kEndpoint[] = "frame";
constexpr char kBystander[] = "bystander";

lpc::Options SmallLimits() {
  lpc::Options options;
  options.max_message_bytes = 64 << 10;
  options.max_params = 16;
  options.max_queue_bytes = 64 << 10;
  options.max_inbound_bytes = 16 << 10;
  return options;
}

class Frame {
 public:
  Frame()
      : transport_(*inner_, count_),
        core_(std::make_shared<lpc::ServerCore>(
            transport_, SmallLimits(), [this](const tag_LPCCallBackData& data) { return Take(data); })) {
    Require(core_->Start(kEndpoint) == lpc::kOk, "the frame listens");
    lpcclient::Settings settings;
    settings.id = kBystander;
    settings.endpoint = kEndpoint;
    settings.transport = inner_.get();
    bystander_ = std::make_unique<lpcclient::CLpcClient>(std::move(settings));
    Require(bystander_->Start() && bystander_->WaitConnected(10'000), "a plugin that behaves is let in");
  }
  ~Frame() {
    bystander_->Stop();
    core_->Stop();
  }

  std::unique_ptr<os::Stream> Connect() { return inner_->Connect(kEndpoint).value; }

  /// Waits until the frame has forgotten all connections but that of the bystander.
  void RequireForgotten() {
    Require(count_.WaitLeft(1), "a connection that has ended is forgotten");
    const std::lock_guard lock(mutex_);
    for (const auto& [id, told] : told_) {
      Require(told.connected == told.disconnected + (id == kBystander ? 1 : 0),
              "the host is told of each end");
    }
  }

  void RequireServes() {
    tag_LPCResponseData answer;
    Require(bystander_->Send(answer, tag_LPCRequestData{"0", {}, "still there?"}, 10'000) &&
                answer.body == "still there?",
            "a plugin that behaves is served");
  }

 private:
  struct Told {
    int connected = 0;
    int disconnected = 0;
  };

  bool Take(const tag_LPCCallBackData& data) {
    if (data.body.find(R"("method":"connectionStatusChanged")") != std::string::npos && data.params.empty() &&
        data.msg_id == 0 && data.dst_id == "0" && !data.lease) {
      const bool connected = data.body.find(R"("status":"connected")") != std::string::npos;
      const std::lock_guard lock(mutex_);
      Told& told = told_[data.src_id];
      Require(told.connected == told.disconnected + (connected ? 0 : 1), "beginnings and ends take turns");
      ++(connected ? told.connected : told.disconnected);
    } else {
      const std::lock_guard lock(mutex_);
      Require(told_[data.src_id].connected > 0, "a message comes behind its connection's beginning");
    }
    if (data.need_reply) core_->Reply({data.msg_id, data.src_id, data.params, {}}, {data.body});
    return true;
  }

  const std::unique_ptr<os::LocalTransport> inner_ = os::CreateMemoryTransport();
  fuzz::StreamCount count_;
  fuzz::CountedTransport transport_;
  std::mutex mutex_;
  // Of all connections: a message may come behind its connection's end, which other threads tell of.
  std::map<std::string, Told> told_;  // guarded by mutex_
  const std::shared_ptr<lpc::ServerCore> core_;
  std::unique_ptr<lpcclient::CLpcClient> bystander_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Frame frame;
  static int runs = 0;
  fuzz::Input input(data, size);
  const unsigned mode = input.Byte();
  const bool shakes_hands = (mode & 1) != 0;
  const bool listens = (mode & 2) != 0;
  const std::size_t piece = (mode & 4) != 0 ? 1 + mode / 8 : size + 1;

  fuzz::OtherEnd plugin(frame.Connect());
  if (shakes_hands) {
    lpc::wire::Hello hello;
    hello.id = "raw";
    plugin.Write(fuzz::FrameBytes(lpc::wire::FrameType::kHello, EncodeHello(hello)));
  }
  while (listens && shakes_hands && plugin.frames() == 0 && plugin.TakeAnswers()) std::this_thread::yield();
  while (!input.empty()) plugin.Write(input.Bytes(piece));
  plugin.TakeAnswers();
  plugin.Kill();
  frame.RequireForgotten();
  if (++runs % 64 == 0) frame.RequireServes();
  return 0;
}
