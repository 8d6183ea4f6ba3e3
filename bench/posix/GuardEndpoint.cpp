// What the guard's endpoint adds to the start of the frame.

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Measurements.h"
#include "Process.h"
#include "Samples.h"
#include "Stage.h"
#include "posix/Loopback.h"

namespace bench {
namespace {

constexpr char kEndpoint[] = "guard-endpoint";
constexpr std::size_t kFrameType = 0;  // without an agent
constexpr char kPortElement[] = "ServerPort";

/// A frame is started once in a process, so each start has its own, and is ended with it.
class StartedHost {
 public:
  explicit StartedHost(const Stage& stage)
      : host_(stage.Host(), {"--role", "host", "--endpoint", kEndpoint}),
        milliseconds_(host_.Do(Task::kStartFrame, kFrameType, 0).at(0)) {}

  double milliseconds() const { return milliseconds_; }

 private:
  Child host_;
  const double milliseconds_;
};

double StartWithout(const Stage& stage) {
  stage.RemovePort();
  return StartedHost(stage).milliseconds();
}

double StartWithFreePort(const Stage& stage) {
  const std::uint16_t port = FreePort();
  stage.WritePort(kPortElement, port);
  const StartedHost host(stage);
  if (stage.Port() != port || !IsServed(port)) throw std::runtime_error("the free port was not taken");
  return host.milliseconds();
}

double StartWithTakenPort(const Stage& stage) {
  const Listener taken;
  stage.WritePort(kPortElement, taken.port());
  const StartedHost host(stage);
  if (stage.Port() == taken.port() || !IsServed(stage.Port())) {
    throw std::runtime_error("no other port was chosen, written and opened");
  }
  return host.milliseconds();
}

Row StartRow(const char* name, const Rounds& starts, const Rounds& without) {
  Row row = MakeRow(name, "ms", starts, without);
  const double more = row.median - row.raw_median;
  row.note = "difference " + std::to_string(more).substr(0, 5) + " ms";
  WantAtMost(row, more, 100, "<= 100 ms more");
  return row;
}

}  // namespace

std::vector<Row> MeasureGuardEndpoint(const Settings& settings) {
  const Stage stage;
  Rounds without;
  Rounds with_free_port;
  Rounds with_taken_port;
  for (int i = 0; i < settings.Rounds(9); ++i) {
    without.Add(StartWithout(stage));
    with_free_port.Add(StartWithFreePort(stage));
    with_taken_port.Add(StartWithTakenPort(stage));
  }
  return {StartRow("endpoint.free_port", with_free_port, without),
          StartRow("endpoint.taken_port", with_taken_port, without)};
}

}  // namespace bench
