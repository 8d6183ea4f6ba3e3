#include "HostBehaviours.h"

#include <TolmLPCFrame.h>
#include <TolmLPCFrameDiagnostics.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "HostSide.h"

namespace tolm::test {
namespace {

void Say(const std::string& text) {
  std::cout << text + '\n' << std::flush;
}

void CallOnAndOn(const std::string& url) {
  for (;;) Call(Request(url, "on and on"));
}

}  // namespace

int RunAsHost(int count, const char* const* arguments) {
  if (count < 2) return 2;
  const std::string behaviour = arguments[0];
  const std::string endpoint = arguments[1];
  const std::vector<std::string> plugins(arguments + 2, arguments + count);

  if (behaviour == "stopping") {
    Say("uninit " + std::to_string(TolmLPCFrame::TolmLPCFrameUnInit()));
    return 0;
  }

  // Never destroyed: the frame may go on calling it until the process has ended.
  auto& host = *new HostSide;
  TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogError);
  const int result = host.Start(endpoint, plugins);
  Say("init " + std::to_string(result));
  if (result != 0) return 1;
  for (const std::string& id : plugins) {
    if (!host.WaitForEvent(TolmLPCFrame::kLpcMsgPluginConnected, id)) return 1;
    if (!host.WaitForEvent(TolmLPCFrame::kLpcMsgPluginInited, id)) return 1;
    Say("inited " + id);
  }
  for (const std::string& id : plugins) {
    const Answer answer = Call(Request("/" + id + "/echo", "hello"));
    Say(id + (answer.came ? " answered " + answer.data.body : " failed " + std::to_string(answer.error)));
  }
  if (behaviour == "exiting") {
    TolmLPCFrame::SetLogLevel(TolmLPCFrame::kLogError);
    host.KeepNoMessages();
    for (const std::string& id : plugins) {
      std::thread(CallOnAndOn, "/" + id + "/echo").detach();
      std::thread(CallOnAndOn, "/" + id + "/block").detach();
    }
    std::cin.get();
    std::exit(0);
  }
  std::cin.get();
  return TolmLPCFrame::TolmLPCFrameUnInit() == 0 ? 0 : 1;
}

}  // namespace tolm::test
