// How much goes through in a second.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Host.h"
#include "Measurements.h"
#include "Process.h"
#include "RawPeer.h"
#include "Samples.h"
#include "Targets.h"
#include "Urls.h"

namespace bench {
namespace {

constexpr char kEndpoint[] = "bench";
constexpr auto kLongest = std::chrono::seconds(30);

struct NotificationSize {
  std::size_t bytes;
  const char* name;
  std::size_t per_round;
};
// A round's messages fit into the queues, so that what is measured is not waiting.
constexpr NotificationSize kNotificationSizes[] = {
    {64, "64 B", 60'000}, {1u << 10, "1 KiB", 20'000}, {64u << 10, "64 KiB", 600}, {1u << 20, "1 MiB", 40}};

/// The bytes that such a notification takes on the wire: frame header, prefix, ids, one param, body.
std::size_t WireSize(const std::string& destination, const std::string& source, const std::string& url,
                     std::size_t body) {
  return 16 + 12 + (2 + destination.size()) + (2 + source.size()) + 4 + (4 + 3) + (4 + url.size()) + body;
}

using Rate = std::function<double(std::size_t size, std::size_t count)>;

void CompareRates(std::vector<Row>& rows, const char* direction, const Settings& settings,
                  std::size_t overhead, RawPeer& raw, const Rate& rate) {
  for (const NotificationSize& size : kNotificationSizes) {
    const std::size_t count = settings.Samples(size.per_round);
    const std::size_t frame = size.bytes + overhead;
    raw.WritesPerSecond(frame, count / 4);
    rate(size.bytes, count / 4);
    Rounds raw_rounds;
    Rounds rounds;
    Alternate(
        settings.Rounds(7), [&] { raw_rounds.Add(raw.WritesPerSecond(frame, count)); },
        [&] { rounds.Add(rate(size.bytes, count)); });
    Row row = MakeRow(std::string(direction) + ", " + size.name, "1/s", rounds, raw_rounds);
    row.p99 = row.raw_p99 = kNone;
    if (size.bytes == kNotificationSizes[0].bytes) {
      WantAtLeast(row, row.median, std::min(kTargets.notifications_per_second, row.raw_median / 2),
                  ">= 400,000/s or 0.5x");
    }
    rows.push_back(row);
  }
}

double CallsPerSecond(const Host& host, int callers, std::size_t count) {
  const std::string url = OneOf(EchoUrl(kServingPlugin));
  const std::string body(64, 'x');
  std::atomic<std::size_t> begun{0};
  std::mutex mutex;
  std::string fault;  // guarded by mutex
  const auto begin = Clock::now();
  std::vector<std::thread> threads;
  for (int i = 0; i < callers; ++i) {
    threads.emplace_back([&] {
      try {
        while (begun++ < count) host.Call(url, body);
      } catch (const std::exception& error) {
        const std::lock_guard lock(mutex);
        fault = error.what();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  if (!fault.empty()) throw std::runtime_error(fault);
  return static_cast<double>(count) / SecondsSince(begin);
}

Row MebibytesPerSecond(const char* name, const Rounds& frame, const Rounds& raw) {
  Row row = MakeRow(name, "MiB/s", frame, raw);
  row.median = 1e6 / row.median;
  row.raw_median = 1e6 / row.raw_median;
  row.ratio = row.median / row.raw_median;
  row.p99 = row.raw_p99 = kNone;
  WantAtLeast(row, row.ratio, kTargets.bandwidth, ">= 0.5x");
  return row;
}

}  // namespace

std::vector<Row> MeasureNotifications(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kServingPlugin});
  Host host(kEndpoint, {kServingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kServingPlugin);
  RawPeer raw;
  std::vector<Row> rows;

  TolmLPCFrame::LPCData notification;
  notification.msg_type = TolmLPCFrame::kMsgTypeNotify;
  notification.url = OneOf(CountUrl(kServingPlugin));
  CompareRates(rows, "host -> plugin", settings, WireSize(kServingPlugin, "0", notification.url, 0), raw,
               [&](std::size_t size, std::size_t count) {
                 notification.body.assign(size, 'x');
                 plugin.Do(Task::kExpect, 0, count);
                 const auto begin = Clock::now();
                 for (std::size_t i = 0; i < count; ++i) MustNotify(notification);
                 plugin.channel().TakeAnswer();
                 return static_cast<double>(count) / SecondsSince(begin);
               });

  CompareRates(rows, "plugin -> host", settings, WireSize("0", kServingPlugin, kHostCountUrl, 0), raw,
               [&](std::size_t size, std::size_t count) {
                 host.counter().ExpectMore(count);
                 const auto begin = Clock::now();
                 plugin.channel().Send({Task::kNotifyHost, static_cast<std::uint32_t>(size), count});
                 if (!host.counter().Wait(kLongest))
                   throw std::runtime_error("not every notification arrived");
                 const double seconds = SecondsSince(begin);
                 plugin.channel().TakeAnswer();
                 return static_cast<double>(count) / seconds;
               });
  return rows;
}

std::vector<Row> MeasureCallers(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kServingPlugin});
  Host host(kEndpoint, {kServingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kServingPlugin);

  const std::size_t count = settings.Samples(20'000);
  constexpr int kCallers[] = {1, 8, 64};
  Rounds rounds[3];
  for (const int callers : kCallers) CallsPerSecond(host, callers, count / 4);
  for (int round = 0; round < settings.Rounds(7); ++round) {
    for (std::size_t i = 0; i < 3; ++i) rounds[i].Add(CallsPerSecond(host, kCallers[i], count));
  }
  std::vector<Row> rows;
  for (std::size_t i = 0; i < 3; ++i) {
    Row row = MakeRow(std::to_string(kCallers[i]) + (i == 0 ? " caller" : " callers"), "1/s", rounds[i]);
    row.p99 = kNone;
    row.ratio = row.median / rounds[0].Median();
    if (i > 0) row.note = "ratio to one caller";
    rows.push_back(row);
  }
  WantAtLeast(rows[2], rows[2].ratio, 1.0, ">= 1 caller");
  return rows;
}

std::vector<Row> MeasureBandwidth(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kServingPlugin});
  Host host(kEndpoint, {kServingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kServingPlugin);
  RawPeer raw;
  constexpr std::size_t kSize = 1u << 20;
  const std::size_t count = settings.Samples(60);
  const std::string body(kSize, 'x');
  const std::string size_text = std::to_string(kSize);
  const auto call = [&](const std::string& url, const std::string& request, std::size_t answer) {
    std::vector<double> samples;
    for (std::size_t i = 0; i < count; ++i) {
      samples.push_back(Microseconds([&] {
        if (host.Call(url, request).size() != answer) throw std::runtime_error("an answer of the wrong size");
      }));
    }
    return samples;
  };
  Rounds raw_there;
  Rounds raw_back;
  Rounds there;
  Rounds back;
  for (int round = 0; round < settings.Rounds(10) + 1; ++round) {
    auto samples = raw.There(kSize, count);
    auto frame_samples = call(OneOf(AnswerUrl(kServingPlugin)), body, 1);
    auto back_samples = raw.Back(kSize, count);
    auto frame_back_samples = call(OneOf(SourceUrl(kServingPlugin)), size_text, kSize);
    if (round == 0) continue;  // to warm up
    raw_there.Add(samples);
    there.Add(frame_samples);
    raw_back.Add(back_samples);
    back.Add(frame_back_samples);
  }
  return {MebibytesPerSecond("host -> plugin, one byte back", there, raw_there),
          MebibytesPerSecond("plugin -> host, as the answer", back, raw_back)};
}

}  // namespace bench
