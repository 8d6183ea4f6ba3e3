// Any text from a guard to the frame, which has neither plugins nor a connection: it is handled, and a later
// question is still answered as the first one was.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "TolmBase/Log.h"
#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "net/TolmGuardConnectionManager.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Tolm::Base::SetLogStderrLevel(Tolm::Base::kLogLevelOff);  // that nobody is connected is known
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace TolmLPCFrame;
  auto& communicator = CLPCCommunicateWithTolmGuard::GetInstance();
  static const std::string answer = communicator.BuildProcessInitStateListResponse("guid");
  const std::string text(reinterpret_cast<const char*>(data), size);
  Tolm::Base::CSingleton<CTolmGuardConnectManager>::Instance().DealMessage(1, text);
  communicator.DealNotifyProcessState(text);
  if (communicator.BuildProcessInitStateListResponse("guid") != answer) std::abort();
  return 0;
}
