#include <exception>
#include <memory>

#include "posix/GuardClient.h"
#include "soak/Kinds.h"
#include "soak/Traffic.h"

namespace trust {
namespace {

using bench::GuardClient;

std::string Question(std::size_t more) {
  return R"({"guid":"soak","requestData":{"method":"GetMianProcessPath"},"more":")" + std::string(more, 'g') +
         "\"}";
}

}  // namespace

void AddGuardTraffic(Repeating& repeating, std::uint16_t port, Tally& tally) {
  const auto small = std::make_shared<const std::string>(GuardClient::FrameOf(Question(100)));
  const auto large = std::make_shared<const std::string>(GuardClient::FrameOf(Question(2u << 20)));
  const auto guard = std::make_shared<std::unique_ptr<GuardClient>>();
  repeating.Add(kGuardPause, [=, &tally, number = 0]() mutable {
    try {
      if (*guard == nullptr || number % kGuardRoundsOfConnection == 0) {
        *guard = std::make_unique<GuardClient>(port);
        tally.Good("guard_connects");
      }
      const bool is_large = ++number % kGuardRoundsOfLargeText == 0;
      std::string answer = (*guard)->Ask(is_large ? *large : *small);
      // What the frame says by itself comes in between.
      while (answer.find("NotifyState") != std::string::npos) answer = (*guard)->Ask("");
      tally.Expect(is_large ? "guard_large_text" : "guard_text", answer.find("soak") != std::string::npos,
                   answer);
    } catch (const std::exception& error) {
      guard->reset();
      tally.Unexplained("guard", error.what());
    }
  });
}

}  // namespace trust
