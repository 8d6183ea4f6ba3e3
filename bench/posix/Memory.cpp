// What an idle plugin costs the host.

#include <algorithm>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/resource.h>

#include "Host.h"
#include "Measurements.h"
#include "Process.h"

namespace bench {
namespace {

constexpr char kEndpoint[] = "bench";
constexpr std::size_t kPerProcess = 125;

void RaiseDescriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

double ResidentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    double kib = 0;
    if (word == "VmRSS:" && status >> kib) return kib;
  }
  throw std::runtime_error("the system does not say how much memory is in use");
}

}  // namespace

std::vector<Row> MeasureMemory(const Settings& /*settings*/) {
  RaiseDescriptorLimit();
  std::vector<std::string> ids;
  std::vector<std::unique_ptr<Child>> children;
  for (std::size_t i = 0; i < 1000 / kPerProcess; ++i) {
    const std::string prefix = "idle-" + std::to_string(i) + '-';
    for (std::size_t k = 0; k < kPerProcess; ++k) ids.push_back(prefix + std::to_string(k));
    children.push_back(std::make_unique<Child>(
        std::vector<std::string>{"--role", "idle", "--endpoint", kEndpoint, "--id", prefix}));
  }
  Host host(kEndpoint, ids);

  struct Point {
    std::size_t plugins;
    const char* name;
  };
  constexpr Point kPoints[] = {{1, "1 plugin"}, {100, "100 plugins"}, {1000, "1,000 plugins"}};
  std::vector<Row> rows;
  std::size_t connected = 0;
  for (const Point& point : kPoints) {
    while (connected < point.plugins) {
      Child& child = *children[connected / kPerProcess];
      const std::size_t more = std::min(point.plugins - connected, kPerProcess - connected % kPerProcess);
      child.Do(Task::kIdlePeers, 0, more);
      connected += more;
    }
    host.WaitForConnections(connected);
    Row row;
    row.name = point.name;
    row.unit = "KiB";
    row.median = ResidentKiB();
    if (!rows.empty()) {
      const double each = (row.median - rows.front().median) / static_cast<double>(connected - 1);
      row.note = std::to_string(each).substr(0, 5) + " KiB for each plugin behind the first";
      if (point.plugins == 1000) WantAtMost(row, each, 40, "<= 40 KiB each");
    }
    rows.push_back(row);
  }
  return rows;
}

}  // namespace bench
