// Calls from end to end, with a scripted plugin at the other end of the wire; and whose url it is.

#include "Inputs.h"
#include "Path.h"
#include "Scene.h"
#include "ScriptedPlugin.h"
#include "TolmLPCFrame.h"

namespace instructions {
namespace {

using TolmLPCFrame::LPCData;

// A plugin's request: from the bytes through the frame to the host's callback, and its reply into bytes.
std::size_t Dispatch() {
  SetUpFrame();
  return CountTogether(1000, [](std::size_t count) { ScriptedPlugin::Get().SendRequests(count); });
}

// A host's call: url look-up, records, bytes, and the answer the same way back, all on the caller's thread.
std::size_t SyncSend(bool with_documents) {
  SetUpFrame();
  LPCData request = Record(with_documents);
  request.dst_id.clear();
  std::size_t right = 0;
  const std::size_t times = Count(1000, [&](std::size_t) {
    LPCData answer;
    right += TolmLPCFrame::SyncSend(answer, request, 60'000) && answer.body == Body() ? 1 : 0;
  });
  Expect(right >= times && right == ScriptedPlugin::Get().answered(), "an answer to each call");
  return times;
}

// Other urls in turn, since one that was just looked up might be found sooner.
std::size_t LookUp(const std::vector<std::string>& urls, bool known) {
  SetUpRegistry();
  std::size_t found = 0;
  std::size_t asked = 0;
  const std::size_t times = Count(5000, [&](std::size_t i) {
    int time_out = 0;
    found += TolmLPCFrame::IsPluginURL(time_out, urls[i % urls.size()]) ? 1 : 0;
    ++asked;
  });
  Expect(found == (known ? asked : 0), "known urls");
  return times;
}

template <typename UrlOf>
std::vector<std::string> HundredUrls(UrlOf url_of) {
  std::vector<std::string> urls;
  for (std::size_t i = 0; i < 100; ++i) urls.push_back(url_of(i * 10));
  return urls;
}

}  // namespace

std::vector<Path> FramePaths() {
  return {
      {"dispatch", Dispatch},
      {"sync-send", [] { return SyncSend(false); }},
      {"sync-send-documents", [] { return SyncSend(true); }},
      {"url-found", [] { return LookUp(HundredUrls(PlainUrl), true); }},
      {"url-found-template",
       [] {
         return LookUp(HundredUrls([](std::size_t number) { return TemplateUrl(number + 1, "4711"); }), true);
       }},
      {"url-not-found",
       [] { return LookUp(HundredUrls([](std::size_t number) { return PlainUrl(number + 1); }), false); }},
  };
}

}  // namespace instructions
