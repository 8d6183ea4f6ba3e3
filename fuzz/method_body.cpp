// Any body of a method message, of a plugin that the host lists and of one that it does not: the host is told
// what the body says and nothing else, and the plugin counts as initialised when it said so.

#include <optional>
#include <utility>
#include <vector>

#include "RegistryInside.h"
#include "TolmBase/Singleton.h"
#include "TolmProto/RapidJsonProto.h"
#include "lpcsevermanager/LpcServerManager.h"
#include "support/Input.h"
#include "support/SilentLog.h"

namespace {

using fuzz::Require;
using TolmLPCFrame::FrameCallBackData;

struct Event {
  std::int32_t type;
  std::string id;
  bool operator==(const Event&) const = default;
};

std::vector<Event>& Told() {
  static std::vector<Event> told;
  return told;
}

bool Note(const FrameCallBackData& event, void*) {
  Told().push_back({event.LpcMsgType, event.lpc_data.src_id});
  return true;
}

/// What the body asks for, as the page of the plugins' messages has it.
std::optional<Event> EventOf(const std::string& sender, const std::string& text) {
  proto::CRapidJsonProto body;
  body.set_str(text);
  const std::string method = body.get_v("/method", "");
  if (method == "InitFinish") return Event{TolmLPCFrame::kLpcMsgPluginInited, sender};
  if (method != "connectionStatusChanged") return std::nullopt;
  const std::string status = body.get_v("/status", "");
  const std::string id = body.get_v("/componentID", "");
  if (status == "connected") return Event{TolmLPCFrame::kLpcMsgPluginConnected, id};
  if (status == "disconnected") return Event{TolmLPCFrame::kLpcMsgPluginDisconnected, id};
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  Tolm::Base::CSingleton<TolmLPCFrame::CLpcServerManager>::Instance().SetCallBack(Note, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  auto& registry = TolmLPCFrame::CLPCIntegrate::GetInstance();
  tolm::test::ForgetEverything(registry);
  TolmLPCFrame::PlatformInfo info;
  info.plugin_map["clock"].plugin_id = "clock";
  registry.SetPluginData(info);
  Told().clear();

  tag_LPCCallBackData message;
  message.src_id = input.Byte() % 4 == 0 ? "stranger" : "clock";
  message.body = input.Rest();
  const std::string sender = message.src_id;
  const std::optional<Event> event = EventOf(sender, message.body);
  registry.MethodCallBackEIT(std::move(message));

  Require(Told() == (event ? std::vector<Event>{*event} : std::vector<Event>()),
          "the host is told what the body says");
  const bool inited = event && event->type == TolmLPCFrame::kLpcMsgPluginInited && sender == "clock";
  Require(registry.GetPluginInitStates() == std::map<std::string, bool>{{"clock", inited}},
          "a listed plugin is initialised when it says so");
  const bool connected = event == Event{TolmLPCFrame::kLpcMsgPluginConnected, "clock"};
  Require(registry.GetPluginData().at("clock").connect_state == (connected ? 1 : 0),
          "a listed plugin is connected when it is said so");
  return 0;
}
