// What a host costs while nobody wants anything of it.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Measurements.h"
#include "Process.h"
#include "Row.h"
#include "Stage.h"
#include "Urls.h"
#include "os/PortTable.h"

namespace bench {
namespace {

constexpr std::size_t kPlugins = 3;
constexpr std::size_t kManyPlugins = 100;
constexpr std::size_t kFrameType = 0;      // without an agent
constexpr std::uint16_t kAnyPort = 27431;  // when it is taken, the frame chooses another one
constexpr double kLimitMs = 10;
constexpr auto kIdle = std::chrono::seconds(10);
// What the start leaves to be done is over by then.
constexpr auto kSettle = std::chrono::seconds(2);

void MustListen(std::uint16_t port) {
  std::vector<os::PortRow> rows;
  const bool read = os::ReadTcpTable(rows);
  if (!read || std::none_of(rows.begin(), rows.end(), [port](const os::PortRow& row) {
        return row.local_port == port && row.state == os::kTcpStateListen;
      })) {
    throw std::runtime_error("the guard's endpoint is not open");
  }
}

/// A frame of its own process, with plugins that have initialised and want nothing.
class IdleHost {
 public:
  IdleHost(const char* row, std::size_t plugins, bool with_guard_endpoint)
      : row_(row),
        host_(stage_.Host(), {"--role", "host", "--endpoint", row}),
        plugins_({"--role", "plugin", "--endpoint", row, "--id", kCallingPlugin}) {
    if (with_guard_endpoint) stage_.WritePort("ServerPort", kAnyPort);
    // It would say of each plugin that no guard can be told of it.
    host_.Do(Task::kSilence, 0, 0);
    host_.Do(Task::kStartFrame, kFrameType, plugins);
    plugins_.Do(Task::kIdlePlugins, 0, plugins);
    for (std::size_t i = 0; i < plugins; ++i) host_.Do(Task::kAwaitInit, i, 1);
    if (with_guard_endpoint) MustListen(stage_.Port());
  }

  void Begin() { before_ms_ = Used(); }
  Row End() {
    Row row;
    row.name = row_;
    row.unit = "ms";
    row.median = row.min = row.max = Used() - before_ms_;
    WantAtMost(row, row.median, kLimitMs, "<= 10 ms");
    return row;
  }

 private:
  double Used() { return host_.Do(Task::kProcessorTime, 0, 0).at(0); }

  const char* const row_;
  const Stage stage_;
  Child host_;
  Child plugins_;
  double before_ms_ = 0;
};

}  // namespace

// All at the same time: what one uses is not counted with the other.
std::vector<Row> MeasureIdle(const Settings& /*settings*/) {
  IdleHost few("idle.3", kPlugins, false);
  IdleHost many("idle.100", kManyPlugins, false);
  IdleHost guarded("idle.guarded", kPlugins, true);
  std::this_thread::sleep_for(kSettle);
  for (IdleHost* const host : {&few, &many, &guarded}) host->Begin();
  std::this_thread::sleep_for(kIdle);
  std::vector<Row> rows;
  for (IdleHost* const host : {&few, &many, &guarded}) rows.push_back(host->End());
  rows[0].note = "3 plugins; as the system counts it, in the steps of its clock";
  rows[1].note = "100 plugins";
  rows[2].note = "3 plugins, the guard's endpoint open";
  return rows;
}

}  // namespace bench
