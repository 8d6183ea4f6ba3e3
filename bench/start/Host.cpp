// A host as small as it can be, for how long it takes to start one: it starts the frame, then a plugin, calls
// that, says one byte to whoever started it, and waits to be ended.

#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>

#include "Channel.h"
#include "Process.h"
#include "TolmLPCFrame.h"
#include "TolmLPCFrameDiagnostics.h"
#include "start/Names.h"

namespace {

constexpr int kCallMs = 10'000;

class Ready {
 public:
  static bool Callback(const TolmLPCFrame::FrameCallBackData& data, void* user) {
    if (data.LpcMsgType != TolmLPCFrame::kLpcMsgPluginInited) return true;
    auto& ready = *static_cast<Ready*>(user);
    const std::lock_guard lock(ready.mutex_);
    ready.is_ = true;
    ready.changed_.notify_all();
    return true;
  }

  void Wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return is_; });
  }

 private:
  std::mutex mutex_;
  // Guarded by mutex_.
  std::condition_variable changed_;
  bool is_ = false;
};

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 3) {
    std::fprintf(stderr, "bench_start_host: an endpoint and a plugin's program are wanted\n");
    return 2;
  }
  bench::Channel parent(bench::ParentDescriptor());
  Ready ready;
  TolmLPCFrame::PlatformInfo info;
  info.plugin_map[bench::kStartPlugin].plugin_id = bench::kStartPlugin;
  TolmLPCFrame::RegisterLpcMsgCallback(Ready::Callback, &ready);
  // There is no LpcFrame.xml; the frame would say so.
  TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogNothing);
  if (TolmLPCFrame::TolmLPCFrameInit(argv[1], info) != TolmLPCFrame::kFrameOk) return 1;
  const bench::Child plugin(argv[2], {"--endpoint", argv[1]});
  ready.Wait();
  TolmLPCFrame::LPCData request;
  TolmLPCFrame::LPCData response;
  request.url = bench::kStartUrl;
  request.body = "x";
  if (!TolmLPCFrame::SyncSend(response, request, kCallMs) || response.body != "x") return 1;
  parent.Write("x", 1);
  char end = 0;
  parent.Read(&end, 1);
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "bench_start_host: %s\n", error.what());
  return 1;
}
