// What a log line costs that no sink wants.

#include <cstddef>
#include <string>
#include <vector>

#include "Measurements.h"
#include "Samples.h"
#include "TolmBase/LogLine.h"

namespace bench {
namespace {

// Never called while nobody wants the line, which is what the figure shows.
std::string CostlyText(std::size_t number) {
  return std::string(1000, 'x') + std::to_string(number);
}

constexpr std::size_t kLines = 200'000;

// The compiler must not see through the loops.
void NothingAgainAndAgain() {
  for (std::size_t i = 0; i < kLines; ++i) asm volatile("" : : "r"(i) : "memory");
}

void LogAgainAndAgain() {
  for (std::size_t i = 0; i < kLines; ++i) {
    asm volatile("" : : "r"(i) : "memory");
    TOLM_LOG(Tolm::Base::kLogLevelTrace, "bench", "line %zu, %s", i, CostlyText(i).c_str());
  }
}

std::vector<double> SamplesOf(void (*loop)()) {
  std::vector<double> nanoseconds;
  for (int i = 0; i < 20; ++i) nanoseconds.push_back(Microseconds(loop) * 1e3 / kLines);
  return nanoseconds;
}

}  // namespace

std::vector<Row> MeasureUnwantedLogLine(const Settings& settings) {
  Rounds rounds;
  Rounds empty;
  Alternate(
      settings.Rounds(30), [&] { empty.Add(SamplesOf(NothingAgainAndAgain)); },
      [&] { rounds.Add(SamplesOf(LogAgainAndAgain)); });
  Row row = MakeRow("log.suppressed", "ns", rounds, empty);
  row.note = "a trace line; raw: the empty loop";
  return {row};
}

}  // namespace bench
