// From the host's start of the frame to the first answer of a plugin.

#include <memory>
#include <string>
#include <vector>

#include <poll.h>

#include "Host.h"
#include "Measurements.h"
#include "Process.h"
#include "Samples.h"
#include "Urls.h"

namespace bench {
namespace {

// A frame is started once in a process, so each start has its own.
double MillisecondsToFirstCall(const std::string& endpoint, Child& plugin, bool connects_afterwards) {
  return std::stod(RunApart(
      [&] {
        const auto begin = Clock::now();
        Host host(endpoint, {kServingPlugin});
        if (connects_afterwards) plugin.Do(Task::kConnect, 0, 0);
        host.WaitForPlugin(kServingPlugin);
        host.Call(OneOf(EchoUrl(kServingPlugin)), "x");
        return std::to_string(SecondsSince(begin) * 1e3);
      },
      30));
}

/// Starts of frames for plugins that have been looking for one for `waited_ms`.
Row MeasureWaiting(const char* name, int waited_ms, bool connects_afterwards, int starts) {
  std::vector<std::unique_ptr<Child>> plugins;
  const auto endpoint = [&](int i) { return "start-" + std::to_string(waited_ms) + '-' + std::to_string(i); };
  for (int i = 0; i < starts; ++i) {
    plugins.push_back(std::make_unique<Child>(
        std::vector<std::string>{"--role", "plugin", "--endpoint", endpoint(i), "--id", kServingPlugin}));
    if (!connects_afterwards) plugins.back()->Do(Task::kConnect, 0, 0);
  }
  ::poll(nullptr, 0, waited_ms);
  Rounds rounds;
  for (int i = 0; i < starts; ++i) {
    rounds.Add(
        MillisecondsToFirstCall(endpoint(i), *plugins[static_cast<std::size_t>(i)], connects_afterwards));
  }
  Row row = MakeRow(name, "ms", rounds);
  row.note = "p99: the slowest start";
  WantAtMost(row, row.median, 50, "<= 50 ms");
  return row;
}

}  // namespace

std::vector<Row> MeasureStart(const Settings& settings) {
  const int starts = settings.Rounds(9);
  return {MeasureWaiting("plugin connects when the frame listens", 0, true, starts),
          MeasureWaiting("plugin has looked for the frame for 0.2 s", 200, false, starts),
          MeasureWaiting("plugin has looked for the frame for 3 s", 3000, false, starts)};
}

}  // namespace bench
