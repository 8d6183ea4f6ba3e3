#include "HostCalls.h"

namespace tour {

using TolmLPCFrame::LPCData;

std::string ReasonInWords(int error) {
  switch (error) {
    case 0:
      return "no plugin that is ready serves this URL";
    case 6:
      return "the plugin is not connected";
    case 7:
      return "the connection ended before the answer came";
    case 8:
      return "no answer in time";
    default:
      return "error of the transport";
  }
}

Outcome Call(const LPCData& request, int time_out_ms) {
  Outcome outcome;
  const auto began = Clock::now();
  outcome.answered = TolmLPCFrame::SyncSend(outcome.answer, request, time_out_ms);
  outcome.ended = Clock::now();
  outcome.took = outcome.ended - began;
  if (!outcome.answered) outcome.error = TolmLPCFrame::GetLPCLastError();  // of this thread
  return outcome;
}

LPCData Request(const std::string& method, const std::string& url) {
  LPCData request;
  request.method = method;
  request.url = url;
  return request;
}

}  // namespace tour
