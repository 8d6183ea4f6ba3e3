// How long one exchange takes, beside the bare stream's for the same bytes.

#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
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
constexpr int kRounds = 10;

using Round = std::function<std::vector<double>(std::size_t size, std::size_t count)>;

// Other load, or threads of the frame that wake up meanwhile: then the frame's p99 is not its own alone.
void NoteDisturbance(Row& row) {
  const double tail = row.raw_p99 / row.raw_median;
  if (tail <= 2.5) return;
  char note[64];
  std::snprintf(note, sizeof note, "disturbed: raw p99 is %.1fx raw median meanwhile", tail);
  row.note = note;
}

std::string AtMost(double ratio) {
  char text[32];
  std::snprintf(text, sizeof text, "<= %.1fx", ratio);
  return text;
}

Row Compare(const BodySize& size, const Settings& settings, RawPeer& raw, const Round& round) {
  const std::size_t count = settings.Samples(size.calls_per_round);
  raw.PingPong(size.bytes, count / 4 + 1);
  round(size.bytes, count / 4 + 1);
  Rounds raw_rounds;
  Rounds rounds;
  Alternate(
      settings.Rounds(kRounds), [&] { raw_rounds.Add(raw.PingPong(size.bytes, count)); },
      [&] { rounds.Add(round(size.bytes, count)); });
  Row row = MakeRow(size.name, "us", rounds, raw_rounds);
  NoteDisturbance(row);
  return row;
}

std::vector<Row> CompareAll(const Settings& settings, const Round& round, double limit) {
  RawPeer raw;
  std::vector<Row> rows;
  for (const BodySize& size : kBodySizes) rows.push_back(Compare(size, settings, raw, round));
  WantAtMost(rows.front(), rows.front().ratio, limit, AtMost(limit));
  return rows;
}

}  // namespace

std::vector<Row> MeasureRaw(const Settings& settings) {
  RawPeer raw;
  std::vector<Row> rows;
  for (const BodySize& size : kBodySizes) {
    const std::size_t count = settings.Samples(size.calls_per_round);
    raw.PingPong(size.bytes, count / 4 + 1);
    Rounds rounds;
    for (int i = 0; i < settings.Rounds(kRounds); ++i) rounds.Add(raw.PingPong(size.bytes, count));
    rows.push_back(MakeRow(size.name, "us", rounds));
  }
  return rows;
}

std::vector<Row> MeasureSyncSend(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kServingPlugin});
  Host host(kEndpoint, {kServingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kServingPlugin);
  auto rows = CompareAll(
      settings,
      [](std::size_t size, std::size_t count) {
        TolmLPCFrame::LPCData request;
        request.url = OneOf(EchoUrl(kServingPlugin));
        request.body.assign(size, 'x');
        std::vector<double> samples;
        samples.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
          TolmLPCFrame::LPCData response;
          bool answered = false;
          samples.push_back(
              Microseconds([&] { answered = TolmLPCFrame::SyncSend(response, request, 10'000); }));
          if (!answered || response.body.size() != size) throw std::runtime_error("a call was not answered");
        }
        return samples;
      },
      kTargets.sync_send);
  // The slowest hundredth has a target of its own, against what the bare stream usually needs.
  Row tail = rows.front();
  tail.name = "64 B, p99";
  tail.ratio = tail.p99 / tail.raw_median;
  tail.target.clear();
  tail.missed = kNone;
  WantAtMost(tail, tail.ratio, kTargets.sync_send_p99, AtMost(kTargets.sync_send_p99));
  rows.insert(rows.begin() + 1, tail);
  return rows;
}

std::vector<Row> MeasurePluginToHost(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kCallingPlugin});
  Host host(kEndpoint, {kCallingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kCallingPlugin);
  return CompareAll(
      settings, [&](std::size_t size, std::size_t count) { return plugin.Do(Task::kCallHost, size, count); },
      kTargets.plugin_to_host);
}

std::vector<Row> MeasurePluginToPlugin(const Settings& settings) {
  Child server({"--role", "plugin", "--endpoint", kEndpoint, "--id", kServingPlugin});
  Child caller({"--role", "plugin", "--endpoint", kEndpoint, "--id", kCallingPlugin});
  Host host(kEndpoint, {kServingPlugin, kCallingPlugin});
  for (Child* const plugin : {&server, &caller}) plugin->Do(Task::kConnect, 0, 0);
  for (const char* const id : {kServingPlugin, kCallingPlugin}) host.WaitForPlugin(id);
  return CompareAll(
      settings,
      [&](std::size_t size, std::size_t count) { return caller.Do(Task::kCallPlugin, size, count); },
      kTargets.plugin_to_plugin);
}

}  // namespace bench
