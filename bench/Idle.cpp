// What a host costs while nobody wants anything of it.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Measurements.h"
#include "Process.h"
#include "Stage.h"
#include "Urls.h"
#include "os/PortTable.h"

namespace bench {
namespace {

constexpr std::size_t kPlugins = 3;
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

Row IdleRow(const char* name, const char* endpoint, const Stage& stage, bool with_guard_endpoint) {
  Child host(stage.Host(), {"--role", "host", "--endpoint", endpoint});
  std::vector<std::unique_ptr<Child>> plugins;
  for (std::size_t i = 0; i < kPlugins; ++i) {
    plugins.push_back(std::make_unique<Child>(
        std::vector<std::string>{"--role", "plugin", "--endpoint", endpoint, "--id", PluginName(i)}));
  }
  // It would say of each plugin that no guard can be told of it.
  host.Do(Task::kSilence, 0, 0);
  host.Do(Task::kStartFrame, kFrameType, kPlugins);
  for (const auto& plugin : plugins) plugin->Do(Task::kConnect, 0, 0);
  for (std::size_t i = 0; i < kPlugins; ++i) host.Do(Task::kAwaitInit, i, 1);
  if (with_guard_endpoint) MustListen(stage.Port());
  std::this_thread::sleep_for(kSettle);

  const double before = host.Do(Task::kProcessorTime, 0, 0).at(0);
  std::this_thread::sleep_for(kIdle);
  Row row;
  row.name = name;
  row.unit = "ms";
  row.median = host.Do(Task::kProcessorTime, 0, 0).at(0) - before;
  WantAtMost(row, row.median, kLimitMs, "<= 10 ms");
  return row;
}

}  // namespace

std::vector<Row> MeasureIdle(const Settings& /*settings*/) {
  const Stage stage;
  std::vector<Row> rows{IdleRow("3 plugins", "idle", stage, false)};
  stage.WritePort("ServerPort", kAnyPort);
  rows.push_back(IdleRow("3 plugins, the guard's endpoint open", "idle-with-endpoint", stage, true));
  rows.front().note = "as the system counts it, in the steps of its clock";
  return rows;
}

}  // namespace bench
