// Texts: masking of urls, log lines that nobody wants, JSON and XML by path, a guard's and a frame's message.

#include "GuardMessages.h"
#include "Inputs.h"
#include "Path.h"
#include "TolmBase/LogLine.h"
#include "TolmProto/RapidJsonProto.h"
#include "TolmProto/XmlProto.h"
#include "common/UrlTemplate.h"
#include "net/TolmGuardConnectionManager.h"

namespace instructions {
namespace {

constexpr std::size_t kTimes = 5000;

std::size_t Mask(const std::string& query, char expected_end) {
  const std::string url = TemplateUrl(501, "4711") + query;
  char end = 0;
  const std::size_t times = Count(kTimes, [&](std::size_t) { end = TolmLPCFrame::MaskSidInUrl(url).back(); });
  Expect(end == expected_end, "a masked url");
  return times;
}

// Never called while nobody wants the line.
std::string CostlyText(std::size_t number) {
  return std::string(1000, 'x') + std::to_string(number);
}

std::size_t SuppressedLine() {
  Expect(!Tolm::Base::IsLogWanted(Tolm::Base::kLogLevelTrace), "that nobody wants trace lines");
  return Count(100'000, [](std::size_t i) {
    TOLM_LOG(Tolm::Base::kLogLevelTrace, "instructions", "line %zu, %s", i, CostlyText(i).c_str());
  });
}

std::size_t GetJson() {
  proto::CRapidJsonProto json;
  Expect(
      json.set_str(R"({"guid":"0f8fad5b","requestData":{"method":"SetProcessGuardStateList","guardInfoList":)"
                   R"([{"processName":"clock","type":0},{"processName":"relay","type":1}],"total":2}})"),
      "a JSON document");
  std::size_t right = 0;
  const std::size_t times = Count(kTimes, [&](std::size_t) {
    right += json.get_v("/requestData/guardInfoList[2]/processName", "") == "relay" ? 1 : 0;
    right += json.get_int_v("/requestData/guardInfoList[2]/type", -1) == 1 ? 1 : 0;
  });
  Expect(right >= 2 * times, "values of a JSON document");
  return times;
}

std::size_t GetXml() {
  proto::CXmlProto xml;
  Expect(xml.set_str("<Config><ProtocolType>ws</ProtocolType><ClientPort>23456</ClientPort></Config>"),
         "an XML document");
  std::size_t right = 0;
  const std::size_t times = Count(kTimes, [&](std::size_t) {
    right += xml.get_v("/Config/ProtocolType", "") == "ws" ? 1 : 0;
    right += xml.get_int_v("/Config/ClientPort", -1) == 23456 ? 1 : 0;
  });
  Expect(right >= 2 * times, "values of an XML document");
  return times;
}

std::size_t GuardReads() {
  const std::string text =
      R"({"guid":"7c9e6679-7425-40de-944b-e07fc1f90ae7","requestData":{"method":"NotifyFrameInitState",)"
      R"("initState":1,"cmdline":"--endpoint demo","PluginList":["clock","relay","kitchen"]}})";
  std::size_t right = 0;
  const std::size_t times = Count(1000, [&](std::size_t) {
    guard::FrameMessage message;
    std::string why;
    right += guard::ParseFrameMessage(text, message, why) ? 1 : 0;
  });
  Expect(right >= times, "a message that the guard understands");
  return times;
}

std::size_t FrameReads() {
  // State 1 tells the frame nothing, so that nothing but reading is counted.
  const std::string text =
      R"({"guid":"7c9e6679-7425-40de-944b-e07fc1f90ae7","requestData":{"method":"NotifyProcessState",)"
      R"("state":1,"processId":"clock"}})";
  auto& endpoint = Tolm::Base::CSingleton<TolmLPCFrame::CTolmGuardConnectManager>::Instance();
  return Count(1000, [&](std::size_t) { endpoint.DealMessage(1, text); });
}

}  // namespace

std::vector<Path> TextPaths() {
  return {
      {"url-mask", [] { return Mask("?SID=0123456789abcdefABCDEF0123456789", '*'); }},
      {"url-mask-nothing", [] { return Mask("?page=2", '2'); }},
      {"log-suppressed", SuppressedLine},
      {"json-get", GetJson},
      {"xml-get", GetXml},
      {"guard-reads", GuardReads},
      {"frame-reads-guard", FrameReads},
  };
}

}  // namespace instructions
