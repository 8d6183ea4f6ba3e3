#include "soak/Kinds.h"

#include <algorithm>
#include <cmath>

namespace trust {
namespace {

using std::chrono::milliseconds;

// A round takes time, too: with nothing else to do on the machine the orders to a plugin, some hundred
// messages in each, take half as long as their pause, and everything else less of its own. A kind that comes
// more seldom than a quarter has come to a stop meanwhile.
constexpr double kShare = 0.25;
// In a shorter run, which may be one under a sanitizer, each has to have come.
constexpr double kLeastSeconds = 30;
// Both do all that a plugin does.
constexpr int kPlugins = 2;

constexpr double PerSecond(milliseconds pause) {
  return 1000 / static_cast<double>(pause.count());
}

constexpr Kind Repeated(std::string_view name, double per_second) {
  return {name, per_second, 0};
}

constexpr Kind InTheEnd(std::string_view name, int times) {
  return {name, 0, times};
}

constexpr double kPluginRounds = kPlugins * PerSecond(kPluginPause);
constexpr double kRareOrders = kPluginRounds / kRoundsOfRareOrders;
constexpr double kGuardTexts = PerSecond(kGuardPause);
constexpr double kLargeTexts = kGuardTexts / kGuardRoundsOfLargeText;

}  // namespace

double Kind::Least(double seconds) const {
  if (in_the_end > 0) return in_the_end;
  if (seconds < kLeastSeconds) return 1;
  return std::max(1.0, std::floor(seconds * per_second * kShare));
}

const std::vector<Kind>& Kinds() {
  static const std::vector<Kind> kinds{
      InTheEnd("answers_to_async_requests", 1),
      Repeated("guard_connects", kGuardTexts / kGuardRoundsOfConnection),
      Repeated("guard_large_text", kLargeTexts),
      Repeated("guard_text", kGuardTexts - kLargeTexts),
      Repeated("host_async_request", PerSecond(kAsyncPause)),
      Repeated("host_call", PerSecond(kAlphaCallPause) + PerSecond(kBetaCallPause)),
      Repeated("host_call_timed_out", PerSecond(kFailuresPause)),
      Repeated("host_call_to_unknown_url", PerSecond(kFailuresPause)),
      Repeated("host_large_body", PerSecond(kLargeBodyPause)),
      Repeated("host_notification", PerSecond(kAsyncPause)),
      Repeated("host_parts", PerSecond(kPartsPause)),
      InTheEnd("notifications_to_host", 1),
      InTheEnd("notifications_to_plugin", 1),
      Repeated("plugin_call_timed_out", kRareOrders),
      Repeated("plugin_call_to_unknown_url", kRareOrders),
      Repeated("plugin_calls_host", kPluginRounds),
      Repeated("plugin_calls_plugin", kPluginRounds),
      Repeated("plugin_came_and_went", PerSecond(kComingPause)),
      Repeated("plugin_killed", PerSecond(kKillingPause)),
      Repeated("plugin_large_body", kRareOrders),
      Repeated("plugin_notifies", kPluginRounds),
      Repeated("plugin_parts", kPluginRounds),
      Repeated("plugin_pushes", kPluginRounds),
      Repeated("plugin_registers", kPluginRounds),
      InTheEnd("pushes_to_host", 1),
      InTheEnd("stayed_connected", kPlugins),
  };
  return kinds;
}

}  // namespace trust
