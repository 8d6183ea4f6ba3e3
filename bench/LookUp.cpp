// Whether a url belongs to a plugin, asked while ever more urls are registered.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Host.h"
#include "Measurements.h"
#include "Process.h"
#include "Samples.h"
#include "Targets.h"
#include "Urls.h"

namespace bench {
namespace {

constexpr char kEndpoint[] = "bench";
constexpr auto kLongest = std::chrono::seconds(60);
// Reading the clock takes as long as a look-up, so one sample is the mean of a few.
constexpr std::size_t kPerSample = 20;

bool IsKnown(const std::string& url) {
  int time_out = 0;
  return TolmLPCFrame::IsPluginURL(time_out, url);
}

std::string AtMost(const char* format, double limit) {
  char text[32];
  std::snprintf(text, sizeof text, format, limit);
  return std::string("<= ") + text;
}

void Register(Child& plugin, std::uint64_t first, std::uint64_t end) {
  const auto deadline = Clock::now() + kLongest;
  plugin.Do(Task::kRegister, first, end - first);
  // Registrations are worked on side by side; each one in its order.
  for (std::uint64_t number = first; number < end; number += kUrlsPerRegistration) {
    const std::string last = RegisteredUrl(std::min(end, number + kUrlsPerRegistration) - 1, 1);
    while (!IsKnown(last)) {
      if (Clock::now() >= deadline) throw std::runtime_error("a registration is not in force in time");
      std::this_thread::yield();
    }
  }
}

std::vector<double> LookUp(const std::vector<std::string>& urls, bool known) {
  std::vector<double> nanoseconds;
  for (std::size_t first = 0; first + kPerSample <= urls.size(); first += kPerSample) {
    std::size_t found = 0;
    const double time = Microseconds([&] {
      for (std::size_t i = first; i < first + kPerSample; ++i) found += IsKnown(urls[i]) ? 1 : 0;
    });
    if (found != (known ? kPerSample : 0)) throw std::runtime_error("a look-up gave the wrong answer");
    nanoseconds.push_back(time * 1e3 / kPerSample);
  }
  return nanoseconds;
}

}  // namespace

std::vector<Row> MeasureLookUp(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kServingPlugin});
  Host host(kEndpoint, {kServingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kServingPlugin);

  struct Size {
    std::uint64_t urls;
    const char* name;
  };
  constexpr Size kSizes[] = {{10, "10"}, {1000, "1K"}, {10'000, "10K"}, {1'000'000, "1M"}};
  std::mt19937_64 random(4711);
  std::uint64_t registered = 0;
  double hit_with_1000 = kNone;
  double miss_with_1000 = kNone;
  std::vector<Row> rows;
  for (const Size& size : kSizes) {
    Register(plugin, registered, size.urls);
    registered = size.urls;
    Rounds hits;
    Rounds misses;
    for (int round = 0; round < settings.Rounds(5) + 1; ++round) {
      // Other urls in each round: an url that was just looked up is found sooner.
      std::vector<std::string> known;
      std::vector<std::string> unknown;
      for (std::size_t i = 0; i < settings.Samples(100'000); ++i) {
        known.push_back(RegisteredUrl(random() % registered, random() % 1'000'000));
        unknown.push_back(UnknownUrl(random() % registered, random() % 1'000'000));
      }
      const auto hit = LookUp(known, true);
      const auto miss = LookUp(unknown, false);
      if (round == 0) continue;  // to warm up
      hits.Add(hit);
      misses.Add(miss);
    }
    const std::string name = std::string("lookup.") + size.name;
    Row hit = MakeRow(name + ".found", "ns", hits);
    Row miss = MakeRow(name + ".not_found", "ns", misses);
    if (size.urls == 1000) {
      hit_with_1000 = hit.median;
      miss_with_1000 = miss.median;
      WantAtMost(hit, hit.median, kTargets.lookup_1k_ns, AtMost("%.0f ns", kTargets.lookup_1k_ns));
    }
    if (size.urls == 1'000'000) {
      hit.ratio = hit.median / hit_with_1000;
      miss.ratio = miss.median / miss_with_1000;
      for (Row* const row : {&hit, &miss}) {
        WantAtMost(*row, row->ratio, kTargets.lookup_growth, AtMost("%.1fx", kTargets.lookup_growth));
        row->note = "ratio to lookup.1K";
      }
    }
    rows.push_back(hit);
    rows.push_back(miss);
  }
  return rows;
}

}  // namespace bench
