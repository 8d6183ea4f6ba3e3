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
#include "posix/Copy.h"

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

Row StartRow(const char* name, const Rounds& rounds) {
  Row row = MakeRow(name, "ms", rounds);
  row.note = "p99: the slowest start";
  WantAtMost(row, row.median, 50, "<= 50 ms");
  return row;
}

}  // namespace

std::vector<Row> MeasureStart(const Settings& settings) {
  const int starts = settings.Rounds(9);
  int endpoints = 0;
  Rounds connects_afterwards;
  Rounds just_waiting;
  for (int i = 0; i < starts; ++i) {
    const std::string first = EndpointOf(++endpoints);
    const Plugin told_later = MakePlugin(first);
    connects_afterwards.Add(MillisecondsToFirstCall(first, *told_later, true));
    const std::string second = EndpointOf(++endpoints);
    const Plugin waiting = MakePlugin(second);
    waiting->Do(Task::kConnect, 0, 0);
    Wait(200);
    just_waiting.Add(MillisecondsToFirstCall(second, *waiting, false));
  }

  // All wait at the same time, so that nobody has to wait for that too long.
  Rounds long_waiting;
  std::vector<Plugin> waiting;
  const int first = endpoints + 1;
  for (int i = 0; i < starts; ++i) {
    waiting.push_back(MakePlugin(EndpointOf(++endpoints)));
    waiting.back()->Do(Task::kConnect, 0, 0);
  }
  Wait(3000);
  for (int i = 0; i < starts; ++i) {
    long_waiting.Add(
        MillisecondsToFirstCall(EndpointOf(first + i), *waiting[static_cast<std::size_t>(i)], false));
  }
  return {StartRow("plugin connects when the frame listens", connects_afterwards),
          StartRow("plugin has looked for the frame for 0.2 s", just_waiting),
          StartRow("plugin has looked for the frame for 3 s", long_waiting)};
}

}  // namespace bench
