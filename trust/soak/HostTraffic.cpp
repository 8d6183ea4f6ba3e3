#include <memory>
#include <utility>

#include "TolmLPCServer/LpcError.h"
#include "soak/Kinds.h"
#include "soak/Traffic.h"

namespace trust {
namespace {

using TolmLPCFrame::LPCData;

constexpr int kTimeOutMs = 20'000;
constexpr std::size_t kLarge = 8u << 20;

std::string Why(const Outcome& outcome) {
  return outcome.answered ? "another answer" : "code " + std::to_string(outcome.code);
}

void Echo(const Host& host, Tally& tally, const char* kind, const std::string& url, const std::string& body) {
  const Outcome outcome = host.Call(url, body, kTimeOutMs);
  tally.Expect(kind, outcome.answered && outcome.body == body, Why(outcome));
}

void Parts(const Host& host, Tally& tally) {
  LPCData request;
  request.url = "/beta/echo";
  request.http_headers["X-Soak"] = "yes";
  request.http_mime.resize(3);
  for (auto& part : request.http_mime) part.body_data.assign(100'000, '\0');
  request.body = "body";
  const Outcome outcome = host.Call(request, kTimeOutMs);
  tally.Expect("host_parts", outcome.answered && outcome.body == "body", Why(outcome));
}

// That a code comes which says why.
void Fails(const Host& host, Tally& tally, const char* kind, const std::string& url, const std::string& body,
           int time_out, int code) {
  const Outcome outcome = host.Call(url, body, time_out);
  tally.Expect(kind, !outcome.answered && (code == lpc::kOk || outcome.code == code),
               outcome.answered ? "an answer" : Why(outcome));
}

void Async(Tally& tally, std::int32_t type, const char* kind, const std::string& url,
           std::atomic<std::uint64_t>& count) {
  LPCData data;
  data.msg_type = type;
  data.url = url;
  data.body = std::string(300, 'a');
  std::uint64_t id = 0;
  const bool taken = TolmLPCFrame::AsyncSend(id, data) && id != 0;
  tally.Expect(kind, taken, "code " + std::to_string(TolmLPCFrame::GetLPCLastError()));
  if (taken) ++count;
}

}  // namespace

void AddHostTraffic(Repeating& repeating, const Host& host, Sent& sent, Tally& tally) {
  const auto small = std::make_shared<const std::string>(1024, 's');
  const auto large = std::make_shared<const std::string>(kLarge, 'l');
  repeating.Add(kAlphaCallPause, [&, small] { Echo(host, tally, "host_call", "/alpha/echo", *small); });
  repeating.Add(kBetaCallPause, [&, small] { Echo(host, tally, "host_call", "/beta/echo", *small); });
  repeating.Add(kLargeBodyPause, [&, large] { Echo(host, tally, "host_large_body", "/alpha/echo", *large); });
  repeating.Add(kPartsPause, [&] { Parts(host, tally); });
  repeating.Add(kAsyncPause, [&] {
    Async(tally, TolmLPCFrame::kMsgTypeRequest, "host_async_request", "/alpha/echo", sent.requests);
    Async(tally, TolmLPCFrame::kMsgTypeNotify, "host_notification", "/beta/count", sent.notifications);
  });
  repeating.Add(kFailuresPause, [&] {
    Fails(host, tally, "host_call_timed_out", "/alpha/slow", "600", 30, lpc::kTimeOut);
    // The frame refuses it itself: no transport was asked, and no code is left.
    Fails(host, tally, "host_call_to_unknown_url", "/nobody/serves", "", 1000, lpc::kOk);
  });
}

}  // namespace trust
