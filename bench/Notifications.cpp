// How many messages that nobody answers go through in a second, beside the bare stream's writes of as many
// bytes.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Host.h"
#include "Measurements.h"
#include "Process.h"
#include "RawPeer.h"
#include "Samples.h"
#include "Targets.h"
#include "Turns.h"
#include "Urls.h"

namespace bench {
namespace {

constexpr char kEndpoint[] = "bench";
constexpr int kRounds = 10;
constexpr std::size_t kGroups = 2000;
constexpr auto kLongest = std::chrono::seconds(30);

using Rate = std::function<double(std::size_t size, std::size_t count)>;

Row RateRow(const std::string& name, const Rounds& rounds, const Rounds& raw) {
  Row row = MakeRow(name, "1/s", rounds, raw);
  row.p99 = row.raw_p99 = kNone;
  return row;
}

std::vector<Row> MeasureBursts(const std::string& operation, const Settings& settings, const Rate& rate) {
  RawPeer raw;
  std::vector<Row> rows;
  for (const BurstSize& size : kBurstSizes) {
    const std::size_t count = settings.Samples(size.count);
    Turns turns;
    const Rounds& raw_rounds = turns.AddSingle([&] { return raw.WritesPerSecond(size.bytes, count); });
    const Rounds& rounds = turns.AddSingle([&] { return rate(size.bytes, count); });
    turns.Run(settings.Rounds(kRounds));
    rows.push_back(RateRow(operation + '.' + size.name + ".burst", rounds, raw_rounds));
  }
  return rows;
}

/// In groups, so that the receiver keeps up: each waits until the one before was handled, as the bare
/// stream's writes do.
Row MeasureSingle(const std::string& operation, const Settings& settings, const Rate& rate) {
  RawPeer raw;
  Turns turns;
  const std::size_t size = kBurstSizes[0].bytes;
  const std::size_t groups = settings.Samples(kGroups);
  const Rounds& raw_rounds = turns.AddSingle([&] { return raw.GroupedWritesPerSecond(size, groups); });
  const Rounds& rounds = turns.AddSingle([&] { return rate(size, groups); });
  turns.Run(settings.Rounds(kRounds));
  Row row = RateRow(operation + '.' + kBurstSizes[0].name + ".single", rounds, raw_rounds);
  row.note = "in groups of " + std::to_string(kGroup) + ", and so is raw";
  return row;
}

TolmLPCFrame::LPCData Notification(std::size_t size) {
  TolmLPCFrame::LPCData notification;
  notification.msg_type = TolmLPCFrame::kMsgTypeNotify;
  notification.url = OneOf(CountUrl(kServingPlugin));
  notification.body.assign(size, 'x');
  return notification;
}

double NotifyPlugin(Child& plugin, std::size_t size, std::size_t count) {
  const auto notification = Notification(size);
  plugin.Do(Task::kExpect, 0, count);
  const auto begin = Clock::now();
  for (std::size_t i = 0; i < count; ++i) MustNotify(notification);
  plugin.channel().TakeAnswer();
  return static_cast<double>(count) / SecondsSince(begin);
}

double NotifyPluginInGroups(Child& plugin, std::size_t size, std::size_t groups) {
  const auto notification = Notification(size);
  plugin.Do(Task::kExpectGroups, 0, groups);
  const auto begin = Clock::now();
  for (std::size_t group = 0; group < groups; ++group) {
    for (std::size_t i = 0; i < kGroup; ++i) MustNotify(notification);
    char done = 0;
    if (!plugin.channel().Read(&done, 1)) throw std::runtime_error("the plugin ended");
  }
  const double seconds = SecondsSince(begin);
  plugin.channel().TakeAnswer();
  return static_cast<double>(groups * kGroup) / seconds;
}

void MustArrive(Host& host) {
  if (!host.counter().Wait(kLongest)) throw std::runtime_error("not every message arrived");
}

/// `task`: kNotifyHost or kPushHost.
double SendToHost(Child& plugin, Host& host, Task task, std::size_t size, std::size_t count) {
  host.counter().ExpectMore(count);
  const auto begin = Clock::now();
  plugin.channel().Send({task, static_cast<std::uint32_t>(size), count});
  MustArrive(host);
  const double seconds = SecondsSince(begin);
  plugin.channel().TakeAnswer();
  return static_cast<double>(count) / seconds;
}

double NotifyHostInGroups(Child& plugin, Host& host, std::size_t size, std::size_t groups) {
  host.counter().ExpectGroups(groups, plugin.channel());
  plugin.channel().Send({Task::kNotifyHostGroups, static_cast<std::uint32_t>(size), groups});
  // Not the answer is waited for first: some systems do not write while another thread reads.
  MustArrive(host);
  return plugin.channel().TakeAnswer().at(0);
}

}  // namespace

std::vector<Row> MeasureNotifications(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kServingPlugin});
  Host host(kEndpoint, {kServingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kServingPlugin);

  auto rows = MeasureBursts("notify", settings, [&](std::size_t size, std::size_t count) {
    return NotifyPlugin(plugin, size, count);
  });
  char text[32];
  std::snprintf(text, sizeof text, ">= %.0f/s", kTargets.notify_burst_per_second);
  WantAtLeast(rows[0], rows[0].median, kTargets.notify_burst_per_second, text);
  Row single = MeasureSingle("notify", settings, [&](std::size_t size, std::size_t groups) {
    return NotifyPluginInGroups(plugin, size, groups);
  });
  std::snprintf(text, sizeof text, ">= %.1fx", kTargets.notify_single);
  WantAtLeast(single, single.ratio, kTargets.notify_single, text);
  rows.push_back(single);
  return rows;
}

std::vector<Row> MeasurePluginNotifications(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kCallingPlugin});
  Host host(kEndpoint, {kCallingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kCallingPlugin);
  auto rows = MeasureBursts("plugin_notify", settings, [&](std::size_t size, std::size_t count) {
    return SendToHost(plugin, host, Task::kNotifyHost, size, count);
  });
  rows.push_back(MeasureSingle("plugin_notify", settings, [&](std::size_t size, std::size_t groups) {
    return NotifyHostInGroups(plugin, host, size, groups);
  }));
  return rows;
}

std::vector<Row> MeasurePushes(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kCallingPlugin});
  Host host(kEndpoint, {kCallingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kCallingPlugin);
  return MeasureBursts("push", settings, [&](std::size_t size, std::size_t count) {
    return SendToHost(plugin, host, Task::kPushHost, size, count);
  });
}

}  // namespace bench
