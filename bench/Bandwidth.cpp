// How many bytes go through in a second, one way.

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
constexpr std::size_t kSize = 1u << 20;

/// Of microseconds for a MiB.
Row MebibytesPerSecond(const char* name, const Rounds& frame, const Rounds& raw) {
  Row row;
  row.name = name;
  row.unit = "MiB/s";
  row.median = 1e6 / frame.Median();
  row.min = 1e6 / frame.Max();
  row.max = 1e6 / frame.Min();
  row.raw_median = 1e6 / raw.Median();
  row.raw_min = 1e6 / raw.Max();
  row.raw_max = 1e6 / raw.Min();
  row.ratio = row.median / row.raw_median;
  WantAtLeast(row, row.ratio, kTargets.bandwidth, ">= 0.5x");
  return row;
}

}  // namespace

std::vector<Row> MeasureBandwidth(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kServingPlugin});
  Host host(kEndpoint, {kServingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kServingPlugin);
  RawPeer raw;
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
  Turns turns;
  const Rounds& raw_there = turns.Add([&] { return raw.There(kSize, count); });
  const Rounds& there = turns.Add([&] { return call(OneOf(AnswerUrl(kServingPlugin)), body, 1); });
  const Rounds& raw_back = turns.Add([&] { return raw.Back(kSize, count); });
  const Rounds& back = turns.Add([&] { return call(OneOf(SourceUrl(kServingPlugin)), size_text, kSize); });
  turns.Run(settings.Rounds(10));
  return {MebibytesPerSecond("bandwidth.1M.there", there, raw_there),
          MebibytesPerSecond("bandwidth.1M.back", back, raw_back)};
}

}  // namespace bench
