// Any text from a guard to the frame, which has a plugin and no connection: it is handled as its method says,
// and a later question is answered as the plugin's state then is.

#include "GuardInside.h"
#include "RegistryInside.h"
#include "TolmProto/RapidJsonProto.h"
#include "common/Constants.h"
#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "net/TolmGuardConnectionManager.h"
#include "support/Input.h"
#include "support/SilentLog.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();  // that nobody is connected is known
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace TolmLPCFrame;
  const std::string text(reinterpret_cast<const char*>(data), size);
  auto& registry = CLPCIntegrate::GetInstance();
  auto& communicator = CLPCCommunicateWithTolmGuard::GetInstance();
  auto& manager = Tolm::Base::CSingleton<CTolmGuardConnectManager>::Instance();
  tolm::test::ForgetEverything(registry);
  tolm::test::ForgetEverything(manager);
  PlatformInfo info;
  info.plugin_map["clock"].plugin_id = "clock";
  registry.SetPluginData(info);
  registry.SetPluginInitState(true, "clock");

  manager.DealMessage(1, text);

  proto::CRapidJsonProto message;
  const bool is_document = message.set_str(text);
  const std::string method = message.get_v("/requestData/method", "");
  const std::string guid = message.get_v("/guid", "");
  const bool ended = is_document && method == "NotifyProcessState" &&
                     message.get_int_v("/requestData/state", -1) == 0 &&
                     message.get_v("/requestData/processId", "") == "clock";
  fuzz::Require(registry.GetPluginInitState("clock") == !ended,
                "a plugin counts as ended when it is said so");
  const bool is_reply = method == kGuardNotifyLpcFrameInit || method == kGuardSetProcessGuardStateList;
  const auto replies = tolm::test::StoredReplies(manager);
  fuzz::Require(replies.size() == (is_reply ? 1 : 0) && (!is_reply || replies.at(guid) == text),
                "a reply is kept for its sender, and nothing else is");

  proto::CRapidJsonProto answer;
  fuzz::Require(answer.set_str(communicator.BuildProcessInitStateListResponse(text)),
                "an answer is a document");
  fuzz::Require(answer.get_v("/guid", "") == text, "an answer repeats the guid");
  fuzz::Require(answer.get_int_v("/responseData/initInfoList[1]/initState", -1) == (ended ? 0 : 1),
                "an answer tells the plugin's state");
  communicator.DealNotifyProcessState(text);
  return 0;
}
