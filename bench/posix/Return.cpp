// How long a plugin is away that was killed: the guard has to see it, wait as its policy says, and start
// another one.

#include <signal.h>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <string>
#include <system_error>
#include <vector>

#include "Measurements.h"
#include "Process.h"
#include "Samples.h"
#include "Urls.h"
#include "posix/GuardedStage.h"
#include "posix/Loopback.h"

namespace bench {
namespace {

constexpr char kEndpoint[] = "return";
constexpr std::size_t kWithAgent = 1;

double MillisecondsFrom(Clock::time_point begin, double end_seconds) {
  return (end_seconds - std::chrono::duration<double>(begin.time_since_epoch()).count()) * 1e3;
}

double AwaitInit(Child& host, std::size_t plugin, std::size_t count) {
  return host.Do(Task::kAwaitInit, plugin, count).at(0);
}

double MillisecondsToReturn(Child& host, const GuardedStage& stage, std::size_t plugin) {
  const pid_t process = stage.PluginProcess(PluginName(plugin));
  const auto begin = Clock::now();
  if (::kill(process, SIGKILL) != 0) {
    throw std::system_error(errno, std::generic_category(), "killing a plugin");
  }
  return MillisecondsFrom(begin, AwaitInit(host, plugin, 2));
}

/// The plugin that no guard knows, for the `count`-th time.
double MillisecondsToStart(Child& host, const Stage& stage, std::size_t plugin, std::size_t count) {
  const auto begin = Clock::now();
  const Child direct(stage.Host(),
                     {"--role", "guarded", "--endpoint", kEndpoint, "--id", PluginName(plugin)});
  return MillisecondsFrom(begin, AwaitInit(host, plugin, count));
}

}  // namespace

std::vector<Row> MeasureReturn(const Settings& settings) {
  // Each is killed once: the pause before a restart grows with each crash of the same plugin.
  const auto guarded = static_cast<std::size_t>(settings.Rounds(9));
  const std::size_t direct = guarded;
  const GuardedStage stage;
  for (std::size_t i = 0; i < guarded; ++i) stage.PlacePlugin(PluginName(i));
  stage.WritePort("ClientPort", FreePort());
  Child host(stage.Host(), {"--role", "host", "--endpoint", kEndpoint});
  host.Do(Task::kStartFrame, kWithAgent, guarded + 1);
  host.Do(Task::kStartPlugins, 0, 0);
  for (std::size_t i = 0; i < guarded; ++i) AwaitInit(host, i, 1);

  Rounds returns;
  Rounds starts;
  for (std::size_t i = 0; i < guarded; ++i) {
    starts.Add(MillisecondsToStart(host, stage, direct, i + 1));
    returns.Add(MillisecondsToReturn(host, stage, i));
  }
  host.Do(Task::kStopFrame, 0, 0);

  Row row = MakeRow("return.killed", "ms", returns, starts);
  const double more = row.median - row.raw_median;
  row.note = "p99: the slowest; " + std::to_string(std::lround(more)) +
             " ms beyond the plugin's own start, 40 to 60 of which the guard waits";
  WantAtMost(row, more, 300, "<= 300 ms more");
  return {row};
}

}  // namespace bench
