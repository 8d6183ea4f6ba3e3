// The yardstick alone.

#include <string>
#include <vector>

#include "Measurements.h"
#include "RawPeer.h"
#include "Samples.h"
#include "Turns.h"

namespace bench {
namespace {

constexpr int kRounds = 10;

}  // namespace

std::vector<Row> MeasureRaw(const Settings& settings) {
  RawPeer raw;
  Turns turns;
  std::vector<const Rounds*> trips;
  std::vector<const Rounds*> writes;
  for (const BodySize& size : kBodySizes) {
    const std::size_t count = settings.Samples(size.calls);
    trips.push_back(&turns.Add([&raw, size, count] { return raw.PingPong(size.bytes, count); }));
  }
  for (const BurstSize& size : kBurstSizes) {
    const std::size_t count = settings.Samples(size.count);
    writes.push_back(
        &turns.AddSingle([&raw, size, count] { return raw.WritesPerSecond(size.bytes, count); }));
  }
  turns.Run(settings.Rounds(kRounds));

  std::vector<Row> rows;
  for (std::size_t i = 0; i < trips.size(); ++i) {
    rows.push_back(MakeRow(std::string("raw.") + kBodySizes[i].name, "us", *trips[i]));
  }
  for (std::size_t i = 0; i < writes.size(); ++i) {
    rows.push_back(MakeRateRow(std::string("raw.write.") + kBurstSizes[i].name, *writes[i]));
  }
  return rows;
}

std::vector<Row> MeasureRawAgain(const Settings& settings) {
  RawPeer raw;
  Turns turns;
  const std::size_t count = settings.Samples(kBodySizes[0].calls);
  const Rounds& trips = turns.Add([&] { return raw.PingPong(kBodySizes[0].bytes, count); });
  turns.Run(settings.Rounds(kRounds));
  return {MakeRow("raw_again.64", "us", trips)};
}

}  // namespace bench
