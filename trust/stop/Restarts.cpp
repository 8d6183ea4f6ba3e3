// The frame, the transport and the WebSocket server are started and stopped over and over in one process,
// which is to hold no more afterwards than before.
//
//   trust_restarts [--restarts N] [--parts N] [--patient]     of the frame; of the transport and the
//   WebSocket server alone

#include <malloc.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Guard.h"
#include "Life.h"
#include "Plugins.h"
#include "RawClient.h"
#include "ServerPort.h"
#include "Stage.h"
#include "TolmLPCServer/LpcServer.h"
#include "TolmNet/HttpServer.h"
#include "support/Figures.h"
#include "support/OwnResources.h"
#include "support/Wait.h"

namespace trust {
namespace {

using namespace TolmLPCFrame;

constexpr int kPlugins = 4;
/// Until then pools and caches grow to what they keep.
constexpr std::size_t kWarmUp = 20;

double ResidentKib() {
  long pages = 0;
  if (std::FILE* const file = std::fopen("/proc/self/statm", "re")) {
    if (std::fscanf(file, "%*d %ld", &pages) != 1) pages = 0;
    std::fclose(file);
  }
  return static_cast<double>(pages) * 4;
}

/// What the process holds, look by look.
class Looks {
 public:
  Looks(std::string name, long most) : name_(std::move(name)) {
    // What is kept of the looks is not to be seen in them.
    for (auto* const kept : {&threads_, &descriptors_, &resident_, &allocated_}) {
      kept->reserve(static_cast<std::size_t>(most));
    }
  }

  void Take() {
    ::malloc_trim(0);
    threads_.push_back(static_cast<double>(tolm::test::RunningThreads()));
    descriptors_.push_back(static_cast<double>(tolm::test::OpenDescriptors()));
    resident_.push_back(ResidentKib());
    allocated_.push_back(static_cast<double>(::mallinfo2().uordblks) / 1024);
  }
  void Print(double most_resident_kib, double most_allocated_kib, bool patient) const {
    PrintFigure(name_ + "count", static_cast<double>(threads_.size()), "restarts");
    PrintFigure(name_ + "threads_slope", std::abs(Slope(threads_)), "each", Bound::kAtMost, 0.01);
    PrintFigure(name_ + "descriptors_slope", std::abs(Slope(descriptors_)), "each", Bound::kAtMost, 0.01);
    // A sanitizer keeps what was freed, and counts it otherwise; of few restarts the slope is that of the
    // warm-up.
    if (IsWatched() || patient) return;
    PrintFigure(name_ + "memory_slope_kib", Slope(resident_), "KiB each", Bound::kAtMost, most_resident_kib);
    PrintFigure(name_ + "allocated_slope_kib", Slope(allocated_), "KiB each", Bound::kAtMost,
                most_allocated_kib);
  }

 private:
  /// Of the straight line nearest to all looks behind the first ones.
  static double Slope(const std::vector<double>& looks) {
    double n = 0;
    double x = 0;
    double y = 0;
    double xx = 0;
    double xy = 0;
    for (std::size_t i = kWarmUp; i < looks.size(); ++i) {
      const auto at = static_cast<double>(i);
      n += 1;
      x += at;
      y += looks[i];
      xx += at * at;
      xy += at * looks[i];
    }
    return n < 2 ? 0 : (n * xy - x * y) / (n * xx - x * x);
  }

  const std::string name_;
  std::vector<double> threads_;
  std::vector<double> descriptors_;
  std::vector<double> resident_;
  std::vector<double> allocated_;
};

void AnswerRequests(const FrameCallBackData& event, long /*life*/) {
  if (event.LpcMsgType != kLpcMsgLpcData || event.lpc_data.msg_type != kMsgTypeRequest) return;
  LPCData answer;
  answer.msg_type = kMsgTypeReply;
  answer.dst_id = event.lpc_data.src_id;
  answer.msg_id = event.lpc_data.msg_id;
  std::uint64_t id = 0;
  AsyncSend(id, answer);
}

/// One life with its traffic; gives how many calls failed.
long FrameOnce() {
  Life life(AnswerRequests);
  if (TolmLPCFrameInit(kEndpointOfStage, Listed(kPlugins, 0)) != kFrameOk) return 1;
  long failed = 0;
  {
    const Guard guard(Guard::Kind::kAnswers, 0);
    std::vector<std::unique_ptr<EagerPlugin>> plugins;
    for (int i = 0; i < kPlugins; ++i) plugins.push_back(std::make_unique<EagerPlugin>(i, kPlugins));
    for (const auto& plugin : plugins) {
      if (!plugin->WaitReady()) ++failed;
    }
    const auto ask = [](const std::string& url) {
      LPCData question;
      LPCData answer;
      question.url = url;
      question.body.assign(2000, 'q');
      return SyncSend(answer, question, kForever);
    };
    // The frame takes note of plugins that are ready a moment later.
    for (const char* id : {"p0", "p1", "p2", "p3"}) {
      if (!tolm::test::WaitFor([&] { return ask(std::string("/") + id + "/fast"); })) ++failed;
    }
    for (const char* url : {"/p0/fast", "/p1/slow", "/p2/back", "/p3/hop"}) {
      if (!ask(url)) ++failed;
    }
    if (!tolm::test::WaitFor([&] { return guard.WasThere(); })) ++failed;
    if (TolmLPCFrameUnInit() != kFrameOk) ++failed;
    life.Over();
  }
  return failed;
}

bool Echo(const tag_LPCCallBackData& data, void* /*user*/) {
  if (!data.need_reply) return true;
  tag_LPCReplyData reply;
  reply.msg_id = data.msg_id;
  reply.dst_id = data.src_id;
  reply.body = data.body;
  return lpcserver::Reply(std::move(reply));
}

long TransportOnce() {
  lpcserver::Init();
  lpcserver::SetInvokeCallBack(Echo, nullptr);
  long failed = lpcserver::StartListen(kEndpointOfStage) ? 0 : 1;
  {
    lpcclient::Settings settings;
    settings.id = "alone";
    settings.endpoint = kEndpointOfStage;
    lpcclient::CLpcClient client(std::move(settings));
    client.Start();
    if (!client.WaitConnected(kForever)) ++failed;
    tag_LPCResponseData response;
    if (!client.Send(response, {"0", {}, "question"}, kForever)) ++failed;
  }
  lpcserver::StopListen();
  lpcserver::Uninit();
  return failed;
}

long WebSocketOnce() {
  using Tolm::Net::CHttpServer;
  std::int32_t handle = -1;
  std::uint16_t port = 0;
  // Somebody else may be quicker at the port.
  const bool listens = tolm::test::WaitFor([&] {
    port = tolm::test::ServerPort();
    return CHttpServer::StartHttpServer(handle, "127.0.0.1", port, [](auto, const auto&) {}) == 0;
  });
  if (!listens) return 1;
  std::atomic<bool> heard{false};
  CHttpServer::SetWebSocketServerCallBack(handle, [&](std::int32_t, const Tolm::Net::WebsocketRecv& recv) {
    if (recv.type == Tolm::Net::kWebsocketText) heard = true;
  });
  long failed = 0;
  {
    auto client = tolm::test::RawClient::Upgraded(port);
    if (!client.Send(tolm::test::Text("hello"))) ++failed;
    if (!tolm::test::WaitFor([&] { return heard.load(); })) ++failed;
    if (CHttpServer::StopServer(handle) != 0) ++failed;
  }
  return failed;
}

void Repeat(const std::string& name, long times, long (*once)(), Watchdog& watchdog, double most_resident_kib,
            double most_allocated_kib, bool patient) {
  Looks looks(name, times);
  long failed = 0;
  for (long i = 0; i < times; ++i) {
    watchdog.Look(name.c_str(), i);
    failed += once();
    looks.Take();
  }
  PrintFigure(name + "failures", static_cast<double>(failed), "calls", Bound::kExactly, 0);
  looks.Print(most_resident_kib, most_allocated_kib, patient);
}

int Main(int argc, char** argv) {
  const long restarts = Argument(argc, argv, "--restarts", 200);
  const long parts = Argument(argc, argv, "--parts", 2000);
  const bool patient = IsPatient(argc, argv);
  const Stage stage;
  Watchdog watchdog("restarts.hung", std::chrono::seconds(60));
  // Every stop leaves the guid of its question to the guard behind, some 200 bytes.
  Repeat("restarts.", restarts, FrameOnce, watchdog, 16, 1, patient);
  Repeat("restarts.transport.", parts, TransportOnce, watchdog, 1, 0.05, patient);
  Repeat("restarts.websocket.", parts, WebSocketOnce, watchdog, 1, 0.05, patient);
  PrintFigure("restarts.hung", 0, "calls", Bound::kExactly, 0);
  return AllKept() ? 0 : 1;
}

}  // namespace
}  // namespace trust

int main(int argc, char** argv) {
  return trust::Main(argc, argv);
}
