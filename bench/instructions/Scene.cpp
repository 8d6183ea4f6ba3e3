#include "Scene.h"

#include <string>

#include "Inputs.h"
#include "Path.h"
#include "ScriptedPlugin.h"
#include "TolmBase/Singleton.h"
#include "TolmLPCFrame.h"
#include "TolmLPCServer/LpcServer.h"
#include "lpcintegratemodule/LPCIntegrate.h"
#include "lpcsevermanager/LpcServerManager.h"

namespace instructions {
namespace {

using lpc::wire::FrameType;

// Until the end of a handshake's time is over, threads look at the clock now and then.
constexpr int kHandshakeMs = 2000;

std::string Registration() {
  std::string body = R"({"RegisterInfo":{"SupportUrlList":[)";
  for (std::size_t number = 0; number < kUrls; ++number) {
    if (number > 0) body += ',';
    const std::string url = number % 2 == 0 ? PlainUrl(number) : TemplateUrl(number, "<ID>");
    body += R"({"Url":")" + url + R"(","Timeout":5000})";
  }
  return body + "]}}";
}

bool Answer(const TolmLPCFrame::FrameCallBackData& data, void*) {
  if (data.LpcMsgType != TolmLPCFrame::kLpcMsgLpcData) return true;
  TolmLPCFrame::LPCData reply;
  reply.msg_type = TolmLPCFrame::kMsgTypeReply;
  reply.dst_id = data.lpc_data.src_id;
  reply.msg_id = data.lpc_data.msg_id;
  reply.body = data.lpc_data.body;
  std::uint64_t id = 0;
  return TolmLPCFrame::AsyncSend(id, reply);
}

std::string HelloFrame() {
  lpc::wire::Hello hello;
  hello.id = kPluginId;
  const std::string payload = lpc::wire::EncodeHello(hello);
  lpc::wire::FrameHeader header;
  header.payload_size = static_cast<std::uint32_t>(payload.size());
  header.type = FrameType::kHello;
  const lpc::wire::HeaderBytes bytes = lpc::wire::EncodeHeader(header);
  return std::string(bytes.data(), bytes.size()) + payload;
}

}  // namespace

void SetUpRegistry() {
  auto& registry = TolmLPCFrame::CLPCIntegrate::GetInstance();
  TolmLPCFrame::PlatformInfo info;
  info.plugin_map[kPluginId].plugin_id = kPluginId;
  registry.Init(info);
  tag_LPCCallBackData message;
  message.src_id = kPluginId;
  message.body = Registration();
  registry.PluginURLRegister(message);
  registry.SetPluginInitState(true, kPluginId);
  int time_out = 0;
  Expect(TolmLPCFrame::IsPluginURL(time_out, TemplateUrl(501, "4711")), "registered urls");
}

void SetUpFrame() {
  SetUpRegistry();
  TolmLPCFrame::RegisterLpcMsgCallback(Answer, nullptr);
  lpc::Options options;
  options.handshake_ms = kHandshakeMs;
  lpcserver::SetOptions(options);
  ScriptedPlugin::Get().Say(HelloFrame());
  auto& transport = Tolm::Base::CSingleton<TolmLPCFrame::CLpcServerManager>::Instance();
  Expect(transport.LpcInit("counted"), "a frame that listens");
  ScriptedPlugin::Get().WaitUntilQuiet();
  Expect(lpcserver::GetStatistics().peers == 1, "a plugin that is connected");
}

}  // namespace instructions
