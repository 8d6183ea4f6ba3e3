#include "RouteRows.h"

#include <atomic>
#include <barrier>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "RawPeer.h"
#include "Samples.h"

namespace bench {
namespace {

constexpr int kRounds = 7;
constexpr std::size_t kSmall = 64;
constexpr std::size_t kLarge = 1u << 20;
constexpr std::size_t kCallers = 64;
// More calls than from one caller, so that the time in which not all are busy does not count.
constexpr std::size_t kCallsFactor = 3;

void MustCall(Caller& caller, const std::string& body) {
  if (caller.Call(body) != body.size()) throw std::runtime_error("an answer of the wrong size");
}

std::vector<double> TimeCalls(Caller& caller, const std::string& body, std::size_t count) {
  std::vector<double> samples;
  samples.reserve(count);
  for (std::size_t i = 0; i < count; ++i) samples.push_back(Microseconds([&] { MustCall(caller, body); }));
  return samples;
}

Row LatencyRow(const std::string& name, Route& route, std::size_t size, std::size_t count) {
  RawPeer raw;
  const auto caller = route.NewCaller();
  const std::string body(size, 'x');
  raw.PingPong(size, count / 4 + 1);
  TimeCalls(*caller, body, count / 4 + 1);
  Rounds raw_rounds;
  Rounds rounds;
  Alternate(
      kRounds, [&] { raw_rounds.Add(raw.PingPong(size, count)); },
      [&] { rounds.Add(TimeCalls(*caller, body, count)); });
  return MakeRow(name, "us", rounds, raw_rounds);
}

using Callers = std::vector<std::unique_ptr<Caller>>;

// The threads' beginning and end is not measured.
double CallsPerSecond(Callers& callers, const std::string& body, std::size_t count) {
  std::atomic<std::size_t> begun{0};
  std::mutex mutex;
  std::string fault;  // guarded by mutex
  std::barrier<> all(static_cast<std::ptrdiff_t>(callers.size()) + 1);
  std::vector<std::thread> threads;
  for (const auto& caller : callers) {
    threads.emplace_back([&] {
      all.arrive_and_wait();
      try {
        while (begun++ < count) MustCall(*caller, body);
      } catch (const std::exception& error) {
        const std::lock_guard lock(mutex);
        fault = error.what();
      }
      all.arrive_and_wait();
    });
  }
  const auto begin = Clock::now();
  all.arrive_and_wait();
  all.arrive_and_wait();
  const double seconds = SecondsSince(begin);
  for (std::thread& thread : threads) thread.join();
  if (!fault.empty()) throw std::runtime_error(fault);
  return static_cast<double>(count) / seconds;
}

Row CallersRow(const std::string& name, Route& route, std::size_t count) {
  RawPeer raw;
  Callers callers;
  for (std::size_t i = 0; i < kCallers; ++i) callers.push_back(route.NewCaller());
  const std::string body(kSmall, 'x');
  raw.PingPong(kSmall, count / 4 + 1);
  CallsPerSecond(callers, body, count / 4 + 1);
  Rounds raw_rounds;
  Rounds rounds;
  Alternate(
      kRounds, [&] { raw_rounds.Add(raw.PingPong(kSmall, count)); },
      [&] { rounds.Add(CallsPerSecond(callers, body, count)); });
  Row row = MakeRateRow(name, rounds);
  // The bare stream's round trips in a second, one after another.
  row.raw_median = 1e6 / raw_rounds.Median();
  row.raw_min = 1e6 / raw_rounds.Max();
  row.raw_max = 1e6 / raw_rounds.Min();
  row.ratio = row.median / row.raw_median;
  return row;
}

double OneWayPerSecond(Route& route, const std::string& body, std::size_t count) {
  route.server().Do(Task::kExpect, body.size(), count);
  const auto begin = Clock::now();
  route.SendOneWay(body, count);
  route.server().channel().TakeAnswer();
  return static_cast<double>(count) / SecondsSince(begin);
}

Row BurstRow(const std::string& name, Route& route, std::size_t count) {
  RawPeer raw;
  const std::string body(kSmall, 'x');
  raw.WritesPerSecond(kSmall, count / 4 + 1);
  OneWayPerSecond(route, body, count / 4 + 1);
  Rounds raw_rounds;
  Rounds rounds;
  Alternate(
      kRounds, [&] { raw_rounds.Add(raw.WritesPerSecond(kSmall, count)); },
      [&] { rounds.Add(OneWayPerSecond(route, body, count)); });
  Row row = MakeRow(name, "1/s", rounds, raw_rounds);
  row.p99 = row.raw_p99 = kNone;
  return row;
}

Row RowWithout(const std::string& name, std::string unit, std::string note) {
  Row row;
  row.name = name;
  row.unit = std::move(unit);
  row.note = std::move(note);
  return row;
}

bool IsWanted(const std::string& name, const std::string& wanted) {
  return name == wanted || name.compare(0, wanted.size() + 1, wanted + '.') == 0;
}

}  // namespace

std::vector<Row> MeasureRoute(const std::string& peer, const RouteKind& kind, const std::string& wanted,
                              const Settings& settings) {
  const std::size_t calls = settings.Samples(kind.amounts.calls);
  const std::size_t large_calls = settings.Samples(kind.amounts.large_calls);
  const std::size_t one_way = settings.Samples(kind.amounts.one_way);
  struct Measured {
    const char* variant;
    const char* unit;
    std::function<Row(const std::string& name, Route& route)> make;
  };
  const Measured all[] = {
      {"64", "us", [&](const auto& name, Route& route) { return LatencyRow(name, route, kSmall, calls); }},
      {"1M", "us",
       [&](const auto& name, Route& route) { return LatencyRow(name, route, kLarge, large_calls); }},
      {"64.callers64", "1/s",
       [&](const auto& name, Route& route) { return CallersRow(name, route, calls * kCallsFactor); }},
      {"64.burst", "1/s", [&](const auto& name, Route& route) { return BurstRow(name, route, one_way); }},
  };

  const std::string name = peer + '.' + kind.name;
  std::vector<Row> rows;
  std::unique_ptr<Route> route;
  std::string not_there;
  for (const Measured& measured : all) {
    const std::string row_name = name + '.' + measured.variant;
    if (!IsWanted(row_name, wanted)) continue;
    try {
      if (!route && not_there.empty()) route = kind.open(peer + '-' + kind.name);
    } catch (const NotThere& error) {
      not_there = error.what();
    }
    rows.push_back(route ? measured.make(row_name, *route) : RowWithout(row_name, measured.unit, not_there));
  }
  return rows;
}

}  // namespace bench
