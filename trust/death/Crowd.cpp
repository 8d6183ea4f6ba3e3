#include "Crowd.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Stage.h"
#include "support/Figures.h"
#include "support/Wait.h"

namespace trust::death {

void RunCrowd(const CrowdOptions& options) {
  using Clock = std::chrono::steady_clock;
  Stage stage;
  std::vector<std::string> ids;
  for (int i = 0; i < options.plugins; ++i) ids.push_back("p" + std::to_string(i));
  stage.AddPlugins(ids, 0);
  const auto count = static_cast<std::size_t>(options.plugins);
  std::size_t missing = 0;
  std::size_t left = 0;
  int stops_failed = 0;
  double slowest = 0;
  double sum = 0;
  for (int round = 0; round < options.rounds; ++round) {
    tolm::test::ChildProcess& host = stage.StartHost(true);
    host.WaitForLine("a guard is there", kPatience);
    const auto began = Clock::now();
    host.WaitForLines(": initialised", count, kPatience);
    const double took = std::chrono::duration<double>(Clock::now() - began).count();
    slowest = std::max(slowest, took);
    sum += took;
    for (const std::string& id : ids) {
      if (host.CountLines("plugin " + id + ": initialised") == 1) continue;
      ++missing;
      std::printf("round %d: plugin %s was not initialised once\n", round, id.c_str());
    }
    if (host.CountLines(": disconnected") != 0) std::printf("round %d: some plugin was lost\n", round);
    missing += host.CountLines(": disconnected");
    if (!stage.StopHost()) ++stops_failed;
    left += stage.ProcessesThatStay() + stage.FilesThatStay();
  }
  PrintFigure("crowd.rounds", options.rounds, "count");
  PrintFigure("crowd.plugins", options.plugins, "count");
  PrintFigure("crowd.plugins_missing", static_cast<double>(missing), "count", Bound::kExactly, 0);
  PrintFigure("crowd.slowest_s", slowest, "s");
  PrintFigure("crowd.mean_s", sum / options.rounds, "s");
  PrintFigure("crowd.stops_failed", stops_failed, "count", Bound::kExactly, 0);
  PrintFigure("crowd.left", static_cast<double>(left), "count", Bound::kExactly, 0);
}

}  // namespace trust::death
