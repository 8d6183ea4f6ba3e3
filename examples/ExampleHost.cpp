// The smallest useful host: starts the frame, waits until its plugins are ready, calls a URL of theirs, and
// stops the frame. With "example_clock_plugin --endpoint example" beside it:
//   example_host example /clock/now clock
#include <TolmLPCFrame.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <set>
#include <string>

namespace {

std::mutex g_mutex;
std::condition_variable g_changed;
std::set<std::string> g_awaited;  // plugins that are not ready yet

// Everything that plugins say arrives here, on threads of the frame.
bool OnMessage(const TolmLPCFrame::FrameCallBackData& data, void* /*user*/) {
  if (data.LpcMsgType == TolmLPCFrame::kLpcMsgPluginInited) {
    const std::lock_guard lock(g_mutex);
    g_awaited.erase(data.lpc_data.src_id);
    g_changed.notify_all();
  }
  return true;
}

bool WaitForPlugins() {
  std::unique_lock lock(g_mutex);
  return g_changed.wait_for(lock, std::chrono::seconds(20), [] { return g_awaited.empty(); });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s ENDPOINT URL [PLUGIN-ID...]\n", argv[0]);
    return 2;
  }
  TolmLPCFrame::PlatformInfo info;
  for (int i = 3; i < argc; ++i) {
    g_awaited.insert(argv[i]);
    info.plugin_map[argv[i]].plugin_id = argv[i];
  }
  TolmLPCFrame::RegisterLpcMsgCallback(OnMessage, nullptr);
  if (TolmLPCFrame::TolmLPCFrameInit(argv[1], info) != TolmLPCFrame::kFrameOk) return 1;

  TolmLPCFrame::LPCData request;
  request.method = "GET";
  request.url = argv[2];
  TolmLPCFrame::LPCData answer;
  const bool answered = WaitForPlugins() && TolmLPCFrame::SyncSend(answer, request, 5000);
  if (answered) {
    std::printf("%s answers: %s\n", answer.src_id.c_str(), answer.body.c_str());
  } else {
    std::printf("no answer from %s\n", request.url.c_str());
  }
  TolmLPCFrame::TolmLPCFrameUnInit();
  return answered ? 0 : 1;
}
