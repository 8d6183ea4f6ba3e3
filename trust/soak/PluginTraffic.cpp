#include <exception>
#include <memory>
#include <utility>

#include "TolmLPCServer/LpcError.h"
#include "TolmPlugin/Plugin.h"
#include "soak/Kinds.h"
#include "soak/Traffic.h"

namespace trust {
namespace {

// So many urls are registered anew, again and again: who registers others without end makes the frame grow.
constexpr std::uint64_t kUrls = 200;
constexpr std::uint64_t kUrlsAtOnce = 10;
constexpr int kNotifications = 50;

std::string Text(const std::vector<double>& answer) {
  std::string text = "the plugin says";
  for (const double number : answer) text += ' ' + std::to_string(static_cast<std::int64_t>(number));
  return text;
}

// An order whose answer begins with `count`.
void Do(PluginProcess& plugin, Tally& tally, const std::string& kind, const std::string& order,
        double count) {
  const auto answer = plugin.Do(order);
  tally.Expect(kind, answer.at(0) == count, Text(answer));
}

// A call that must end with this code.
void Fails(PluginProcess& plugin, Tally& tally, const std::string& kind, const std::string& order, int code) {
  const auto answer = plugin.Do(order);
  tally.Expect(kind, answer.at(1) == 1 && answer.at(2) == code, Text(answer));
}

void Round(PluginProcess& plugin, const std::string& other, std::uint64_t number, Sent& sent, Tally& tally) {
  const std::string notifications = std::to_string(kNotifications);
  Do(plugin, tally, "plugin_calls_host", std::string("call ") + kHostEcho + " 1024 20 20000", 20);
  Do(plugin, tally, "plugin_calls_plugin", "call /" + other + "/echo 512 10 20000", 10);
  Do(plugin, tally, "plugin_notifies", "flood " + notifications + " 200 " + kHostCount, kNotifications);
  sent.to_host += kNotifications;
  Do(plugin, tally, "plugin_pushes", "push", 1);
  ++sent.pushes;
  Do(plugin, tally, "plugin_parts", "part 50000 20000", 1);
  Do(plugin, tally, "plugin_registers",
     "register " + std::to_string(number * kUrlsAtOnce % kUrls) + ' ' + std::to_string(kUrlsAtOnce), 1);
  if (number % kRoundsOfRareOrders == 0) {
    Fails(plugin, tally, "plugin_call_timed_out", std::string("call ") + kHostSilent + " 10 1 30",
          lpc::kTimeOut);
    Fails(plugin, tally, "plugin_call_to_unknown_url", "call /nobody/serves 10 1 30", lpc::kTimeOut);
    Do(plugin, tally, "plugin_large_body", std::string("call ") + kHostSize + " 6000000 1 20000", 1);
  }
}

// Connects, is ready, and goes in order.
void ComeAndGo(const std::string& endpoint, Tally& tally) {
  TolmPlugin::Plugin plugin("gamma");
  plugin.Serve("/gamma/echo", [](const TolmPlugin::Request&) { return TolmPlugin::Message{}; });
  const bool ready = plugin.Start(endpoint) && plugin.WaitReady(20'000);
  tally.Expect("plugin_came_and_went", ready, "it is not ready");
}

}  // namespace

void AddPluginTraffic(Repeating& repeating, PluginProcess& plugin, const std::string& other, Sent& sent,
                      Tally& tally) {
  repeating.Add(kPluginPause, [&plugin, other, &sent, &tally, number = std::uint64_t{0}]() mutable {
    try {
      Round(plugin, other, number++, sent, tally);
    } catch (const std::exception& error) {
      tally.Unexplained("plugin_order", error.what());
    }
  });
}

void AddChurn(Repeating& repeating, const Host& host, Tally& tally) {
  repeating.Add(kComingPause, [&] { ComeAndGo(host.endpoint(), tally); });
  repeating.Add(kKillingPause, [&, lives = std::uint64_t{0}]() mutable {
    try {
      PluginProcess killed("delta");
      killed.Start(host.endpoint());
      host.AwaitInited("delta", ++lives);
      const Outcome outcome = host.Call("/delta/echo", "x", 20'000);
      tally.Expect("plugin_killed", outcome.answered, "code " + std::to_string(outcome.code));
    } catch (const std::exception& error) {
      tally.Unexplained("plugin_killed", error.what());
    }
  });
}

}  // namespace trust
