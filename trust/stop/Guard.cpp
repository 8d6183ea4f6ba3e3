#include "Guard.h"

#include <chrono>
#include <string>

#include "RawClient.h"
#include "Stage.h"

namespace trust {
namespace {

using tolm::test::RawClient;

// What a guard says when it is not asked; the first one is an event of kind 5 for the host.
constexpr const char* kTexts[] = {
    R"({"guid":"g1","requestData":{"method":"NotifyProcessState","state":0,"processId":"stranger"}})",
    R"({"guid":"g2","requestData":{"method":"GetProcessInitStateList"}})",
    R"({"guid":"g3","requestData":{"method":"GetMianProcessPath"}})",
    "no document at all",
};
constexpr unsigned kTextsAtOnce = 8;

bool IsQuestion(const std::string& text) {
  return text.find("SetProcessGuardStateList") != std::string::npos ||
         text.find("NotifyLPCFrameInit") != std::string::npos;
}

}  // namespace

Guard::Guard(Kind kind, int frame_type) : kind_(kind) {
  if (kind == Kind::kAbsent) return;
  thread_ = std::jthread([this, frame_type](const std::stop_token& stop) { Live(stop, frame_type); });
}

void Guard::Live(const std::stop_token& stop, int frame_type) {
  while (!stop.stop_requested()) {
    const auto port = GuardPort(frame_type);
    if (!port || !Connected(stop, *port)) LetPass(std::chrono::milliseconds(2));
  }
}

bool Guard::Connected(const std::stop_token& stop, std::uint16_t port) {
  RawClient client = RawClient::Upgraded(port);
  if (!client.connected()) return false;
  was_there_ = true;
  unsigned said = 0;
  const unsigned most = kind_ == Kind::kComesAndGoes ? 3 * kTextsAtOnce : 1u << 30;
  while (!stop.stop_requested() && said < most) {
    for (unsigned i = 0; i < kTextsAtOnce; ++i, ++said) {
      if (!client.Send(tolm::test::Text(kTexts[said % std::size(kTexts)]))) return true;
    }
    while (client.HasInput()) {
      const auto frame = client.ReadFrame();
      if (!frame) return true;
      if (kind_ != Kind::kSilent && IsQuestion(frame->payload) &&
          !client.Send(tolm::test::Text(frame->payload)))
        return true;
    }
    LetPass(std::chrono::microseconds(300));
  }
  if (said % 2 == 0) client.Reset();
  return true;
}

}  // namespace trust
