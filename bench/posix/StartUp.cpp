// From the start of a host's process, or of its frame, to the first answer of a plugin.

#include <cmath>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <poll.h>

#include "Host.h"
#include "Measurements.h"
#include "Process.h"
#include "Samples.h"
#include "Urls.h"
#include "posix/Copy.h"

namespace bench {
namespace {

constexpr int kLongestSeconds = 30;
constexpr int kShortWaitMs = 200;
constexpr int kLongWaitMs = 3000;

// A frame is started once in a process, so each start has its own.
double MillisecondsToFirstCall(const std::string& endpoint) {
  return std::stod(RunApart(
      [&] {
        const auto begin = Clock::now();
        Host host(endpoint, {kServingPlugin});
        host.WaitForPlugin(kServingPlugin);
        host.Call(OneOf(EchoUrl(kServingPlugin)), "x");
        return std::to_string(SecondsSince(begin) * 1e3);
      },
      kLongestSeconds));
}

using Plugin = std::unique_ptr<Child>;

std::string EndpointOf(int number) {
  return "start-" + std::to_string(number);
}

Plugin MakePlugin(const std::string& endpoint) {
  return std::make_unique<Child>(
      std::vector<std::string>{"--role", "plugin", "--endpoint", endpoint, "--id", kServingPlugin});
}

void Wait(int milliseconds) {
  ::poll(nullptr, 0, milliseconds);
}

/// Neither the host's process is there yet nor the plugin's, which the host starts.
double MillisecondsFromNothing(const std::string& endpoint) {
  const auto folder = ThisProgram().parent_path();
  const auto begin = Clock::now();
  Child host((folder / "bench_start_host").string(), {endpoint, (folder / "bench_start_plugin").string()});
  host.AwaitWord(kLongestSeconds);
  char done = 0;
  if (!host.channel().Read(&done, 1)) throw std::runtime_error("the host ended before the first call");
  return SecondsSince(begin) * 1e3;
}

Row StartRow(const char* name, const Rounds& rounds, double limit_ms) {
  Row row = MakeRow(name, "ms", rounds);
  row.note = "p99: the slowest start";
  WantAtMost(row, row.median, limit_ms, "<= " + std::to_string(std::lround(limit_ms)) + " ms");
  return row;
}

}  // namespace

std::vector<Row> MeasureStart(const Settings& settings) {
  const int starts = settings.Rounds(9);
  // All wait at the same time, so that nobody has to wait for that too long.
  std::vector<Plugin> waiting;
  for (int i = 0; i < starts; ++i) {
    waiting.push_back(MakePlugin(EndpointOf(i)));
    waiting.back()->Do(Task::kConnect, 0, 0);
  }
  int endpoints = starts;
  Wait(kLongWaitMs);
  Rounds long_waiting;
  for (int i = 0; i < starts; ++i) {
    long_waiting.Add(MillisecondsToFirstCall(EndpointOf(i)));
    waiting[static_cast<std::size_t>(i)].reset();
  }

  MillisecondsFromNothing(EndpointOf(++endpoints));  // so that the programs lie in memory
  Rounds from_nothing;
  Rounds just_waiting;
  for (int i = 0; i < starts; ++i) {
    from_nothing.Add(MillisecondsFromNothing(EndpointOf(++endpoints)));
    const std::string endpoint = EndpointOf(++endpoints);
    const Plugin plugin = MakePlugin(endpoint);
    plugin->Do(Task::kConnect, 0, 0);
    Wait(kShortWaitMs);
    just_waiting.Add(MillisecondsToFirstCall(endpoint));
  }
  std::vector<Row> rows{StartRow("start.first_call", from_nothing, 8),
                        StartRow("start.waiting_200ms", just_waiting, 50),
                        StartRow("start.waiting_3s", long_waiting, 50)};
  rows[0].note = "fork and exec of a host, which starts the frame and a plugin's process; " + rows[0].note;
  return rows;
}

}  // namespace bench
