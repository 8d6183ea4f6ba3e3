#include "GuardMessages.h"

#include "TolmBase/GuidUtil.h"
#include "TolmProto/RapidJsonProto.h"

namespace guard {
namespace {

constexpr char kPathGuid[] = "/guid";
constexpr char kPathMethod[] = "/requestData/method";
constexpr char kPathProcessName[] = "/requestData/processName";
constexpr char kPathMainProcess[] = "/responseData/mainProcessPath";

constexpr char kFrameStarted[] = "NotifyLPCFrameInit";
constexpr char kStartPlugins[] = "NotifyFrameInitState";
constexpr char kSetProtection[] = "SetProcessGuardStateList";
constexpr char kStartPlugin[] = "StartProcess";
constexpr char kStopPlugin[] = "StopProcess";
constexpr char kInitStatesChanged[] = "NotifyState";
constexpr char kFrameEnds[] = "NotifyFrameUninit";

constexpr std::size_t kMaxShown = 100;

std::string Shown(const std::string& text) {
  std::string shown = text.substr(0, kMaxShown);
  // It goes into a log line.
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return '"' + shown + (text.size() > kMaxShown ? "...\"" : "\"");
}

std::string Element(const std::string& array, int n) {
  return array + "[" + std::to_string(n) + "]";
}

/// Pairs of a name and a member that is 0 or 1.
bool ReadFlags(const proto::CRapidJsonProto& json, const std::string& array, const std::string& flag,
               std::vector<std::pair<std::string, bool>>& flags, std::string& why) {
  const int count = json.get_cnt(array);
  for (int n = 1; n <= count; ++n) {
    const std::string element = Element(array, n);
    const std::string name = json.get_v(element + "/processName", "");
    const int value = json.get_int_v(element + flag, -1);
    if (name.empty() || (value != 0 && value != 1)) {
      why = element + " has no processName, or its " + flag.substr(1) + " is neither 0 nor 1";
      return false;
    }
    flags.emplace_back(name, value == 1);
  }
  return true;
}

bool ReadStartPlugins(const proto::CRapidJsonProto& json, StartPlugins& start, std::string& why) {
  if (json.get_int_v("/requestData/initState", -1) != 1) {
    why = "its initState is not 1";
    return false;
  }
  start.command_line = json.get_v("/requestData/cmdline", "");
  const std::string array = "/requestData/PluginList";
  const int count = json.get_cnt(array);
  for (int n = 1; n <= count; ++n) start.plugins.push_back(json.get_v(Element(array, n), ""));
  return true;
}

bool ReadRequest(const proto::CRapidJsonProto& json, const std::string& method, FrameMessage& message,
                 std::string& why) {
  // Without it the reply would find nobody.
  const bool is_awaited = method == kFrameStarted || method == kSetProtection;
  if (is_awaited && message.guid.empty()) {
    why = "it has no guid to reply to";
    return false;
  }
  if (method == kFrameStarted) {
    message.says = FrameStarted();
  } else if (method == kStartPlugins) {
    return ReadStartPlugins(json, message.says.emplace<StartPlugins>(), why);
  } else if (method == kSetProtection) {
    return ReadFlags(json, "/requestData/guardInfoList", "/type",
                     message.says.emplace<SetProtection>().plugins, why);
  } else if (method == kInitStatesChanged) {
    message.says = InitStatesChanged();
  } else if (method == kFrameEnds) {
    message.says = FrameEnds();
  } else if (method == kStartPlugin || method == kStopPlugin) {
    const std::string plugin = json.get_v(kPathProcessName, "");
    if (plugin.empty()) {
      why = "it has no processName";
      return false;
    }
    if (method == kStartPlugin) {
      message.says = StartPlugin{plugin};
    } else {
      message.says = StopPlugin{plugin};
    }
  } else {
    why = "its method is not known";
    return false;
  }
  return true;
}

// Answers carry no method: they are known by what they hold.
bool ReadAnswer(const proto::CRapidJsonProto& json, FrameMessage& message, std::string& why) {
  const std::string path = json.get_v(kPathMainProcess, "");
  if (!path.empty()) {
    message.says = MainProcessPath{path};
    return true;
  }
  if (json.get_int_v("/responseData/total", -1) >= 0) {
    return ReadFlags(json, "/responseData/initInfoList", "/initState",
                     message.says.emplace<InitStates>().plugins, why);
  }
  why = "it has no method, and answers nothing that was asked";
  return false;
}

std::string BuildRequest(const char* method, const std::string& guid) {
  proto::CRapidJsonProto json;
  json.set_v(kPathGuid, guid);
  json.set_v(kPathMethod, method);
  return json.get_str(0);
}

}  // namespace

bool ParseFrameMessage(const std::string& text, FrameMessage& message, std::string& why) {
  proto::CRapidJsonProto json;
  if (!json.set_str(text)) {
    why = "not a JSON document: " + Shown(text);
    return false;
  }
  message.guid = json.get_v(kPathGuid, "");
  const std::string method = json.get_v(kPathMethod, "");
  const bool understood =
      method.empty() ? ReadAnswer(json, message, why) : ReadRequest(json, method, message, why);
  if (!understood) why = (method.empty() ? Shown(text) : Shown(method)) + ": " + why;
  return understood;
}

std::string BuildMainProcessPathQuestion() {
  return BuildRequest("GetMianProcessPath", Tolm::Base::GuidUtil::CreateGuid());
}

std::string BuildInitStatesQuestion(const std::string& guid) {
  return BuildRequest("GetProcessInitStateList", guid);
}

std::string BuildProcessEnded(const std::string& plugin) {
  proto::CRapidJsonProto json;
  json.set_v(kPathGuid, Tolm::Base::GuidUtil::CreateGuid());
  json.set_v(kPathMethod, "NotifyProcessState");
  json.set_v("/requestData/state", 0);
  json.set_v("/requestData/processId", plugin);
  return json.get_str(0);
}

std::string BuildFrameStartedReply(const std::string& guid) {
  return BuildRequest(kFrameStarted, guid);
}

std::string BuildSetProtectionReply(const std::string& guid) {
  return BuildRequest(kSetProtection, guid);
}

}  // namespace guard
