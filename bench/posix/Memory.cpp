// What an idle plugin costs the host.

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/resource.h>

#include "Host.h"
#include "Measurements.h"
#include "Process.h"
#include "Samples.h"
#include "posix/Copy.h"

namespace bench {
namespace {

constexpr char kEndpoint[] = "bench";
constexpr std::size_t kPerProcess = 125;
constexpr int kLongestSeconds = 30;

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

struct Point {
  std::size_t plugins;
  const char* row;
};
constexpr Point kPoints[] = {{1, "memory.1"}, {100, "memory.100"}, {1000, "memory.1000"}};

/// How much the host needs at each point, one after the other.
std::string ResidentAtPoints() {
  std::vector<std::string> ids;
  std::vector<std::unique_ptr<Child>> children;
  for (std::size_t i = 0; i < 1000 / kPerProcess; ++i) {
    const std::string prefix = "idle-" + std::to_string(i) + '-';
    for (std::size_t k = 0; k < kPerProcess; ++k) ids.push_back(prefix + std::to_string(k));
    children.push_back(std::make_unique<Child>(
        std::vector<std::string>{"--role", "idle", "--endpoint", kEndpoint, "--id", prefix}));
  }
  Host host(kEndpoint, ids);
  std::ostringstream resident;
  std::size_t connected = 0;
  for (const Point& point : kPoints) {
    while (connected < point.plugins) {
      Child& child = *children[connected / kPerProcess];
      const std::size_t more = std::min(point.plugins - connected, kPerProcess - connected % kPerProcess);
      child.Do(Task::kIdlePeers, 0, more);
      connected += more;
    }
    host.WaitForConnections(connected);
    resident << ResidentKiB() << ' ';
  }
  return resident.str();
}

}  // namespace

std::vector<Row> MeasureMemory(const Settings& settings) {
  RaiseDescriptorLimit();
  constexpr std::size_t kCount = std::size(kPoints);
  std::array<Rounds, kCount> resident;
  Rounds each;
  for (int round = 0; round < settings.Rounds(5); ++round) {
    std::istringstream text(RunApart(ResidentAtPoints, kLongestSeconds));
    std::array<double, kCount> kib{};
    for (std::size_t i = 0; i < kCount; ++i) {
      text >> kib[i];
      resident[i].Add(kib[i]);
    }
    each.Add((kib[kCount - 1] - kib[0]) / static_cast<double>(kPoints[kCount - 1].plugins - 1));
  }
  std::vector<Row> rows;
  for (std::size_t i = 0; i < kCount; ++i) {
    rows.push_back(MakeRow(kPoints[i].row, "KiB", resident[i]));
    rows.back().p99 = kNone;
  }
  rows.back().note = std::to_string(each.Median()).substr(0, 5) + " KiB for each plugin behind the first";
  WantAtMost(rows.back(), each.Median(), 4, "<= 4 KiB each");
  return rows;
}

}  // namespace bench
