// How long one call takes, and how many are made side by side, beside the bare stream's exchange of as many
// bytes.

#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Host.h"
#include "Measurements.h"
#include "Process.h"
#include "RawPeer.h"
#include "Samples.h"
#include "Targets.h"
#include "Turns.h"
#include "Urls.h"

namespace bench {
namespace {

constexpr char kEndpoint[] = "bench";
constexpr int kRounds = 10;
constexpr std::size_t kSideBySide = 8000;

/// Makes the calls of an order, whatever that says about the task.
using Way = std::function<std::vector<double>(const Order& order)>;

struct Variant {
  const char* suffix;
  std::uint32_t callers;
  Shape shape;
};

/// Some of what is measured with a body of one size; those that are compared take turns.
struct CallSize {
  BodySize size;
  std::vector<Variant> variants;
};

std::string Text(const char* format, double value) {
  char text[96];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

// Other load, or threads of the frame that wake up meanwhile: then the frame's p99 is not its own alone.
void NoteDisturbance(Row& row) {
  const double tail = row.raw_p99 / row.raw_median;
  if (tail > 2.5) row.note = Text("disturbed: raw p99 is %.1fx raw median meanwhile", tail);
}

/// In the unit of the row: the bare stream's round trips in a second, one after another.
void CompareRate(Row& row, const Rounds& raw) {
  row.raw_median = 1e6 / raw.Median();
  row.raw_min = 1e6 / raw.Max();
  row.raw_max = 1e6 / raw.Min();
  row.ratio = row.median / row.raw_median;
}

/// The slowest hundredth, of which each round has one.
Row TailRow(const Row& row, const Rounds& tails, double limit) {
  Row tail = MakeRow(row.name + ".p99", row.unit, tails);
  tail.median = tail.p99 = row.p99;
  tail.raw_median = row.raw_median;
  tail.raw_min = row.raw_min;
  tail.raw_max = row.raw_max;
  tail.raw_p99 = row.raw_p99;
  tail.ratio = tail.p99 / tail.raw_median;
  tail.note = Text("p99 of all calls to raw median; to raw p99: %.2fx", tail.p99 / tail.raw_p99);
  WantAtMost(tail, tail.ratio, limit, Text("<= %.1fx", limit));
  return tail;
}

void WantOfSize(Row& row, std::size_t bytes, const CallTargets& targets) {
  double limit = kNone;
  if (bytes == kBodySizes[0].bytes) limit = targets.bytes_64;
  if (bytes == 1u << 20) limit = targets.bytes_1m;
  if (bytes == 16u << 20) limit = targets.bytes_16m;
  WantAtMost(row, row.ratio, limit, Text("<= %.1fx", limit));
}

/// The rows of one size. `operation` is what their names begin with.
class SizeRows {
 public:
  SizeRows(std::string operation, const CallSize& call, const CallTargets& targets)
      : name_(std::move(operation) + '.' + call.size.name), call_(call), targets_(targets) {}

  std::vector<Row> Measure(const Settings& settings, RawPeer& raw, const Way& way) {
    const std::size_t count = settings.Samples(call_.size.calls);
    const std::size_t bytes = call_.size.bytes;
    raw_ = &turns_.Add([&raw, bytes, count] { return raw.PingPong(bytes, count); });
    plain_ = &turns_.Add([&, bytes, count] {
      auto samples = way({{}, static_cast<std::uint32_t>(bytes), count});
      tails_.Add(Rounds::Quantile(samples, 0.99));
      return samples;
    });
    for (const Variant& variant : call_.variants) {
      std::size_t number = variant.callers > 1 ? settings.Samples(kSideBySide) : count;
      if (variant.shape == Shape::kPart) number = count / 4;
      const Order order{{}, static_cast<std::uint32_t>(bytes), number, variant.callers, variant.shape};
      variants_.push_back(&turns_.Add([&way, order] { return way(order); }));
    }
    turns_.Run(settings.Rounds(kRounds));
    return Rows();
  }

 private:
  std::vector<Row> Rows() const {
    std::vector<Row> rows{MakeRow(name_, "us", *plain_, *raw_)};
    NoteDisturbance(rows[0]);
    WantOfSize(rows[0], call_.size.bytes, targets_);
    if (targets_.p99_of_64 != kNone && call_.size.bytes == kBodySizes[0].bytes) {
      rows.push_back(TailRow(rows[0], tails_, targets_.p99_of_64));
    }
    for (std::size_t i = 0; i < variants_.size(); ++i) {
      rows.push_back(VariantRow(call_.variants[i], *variants_[i]));
    }
    return rows;
  }

  Row VariantRow(const Variant& variant, const Rounds& rounds) const {
    const std::string name = name_ + variant.suffix;
    if (variant.callers > 1) {
      Row row = MakeRateRow(name, rounds);
      CompareRate(row, *raw_);
      const double to_one = row.median * plain_->Median() / 1e6;
      row.note = Text("%.2f calls in the time that one call takes alone", to_one);
      if (variant.callers == 64 && call_.size.bytes == kBodySizes[0].bytes) {
        WantAtLeast(row, row.ratio, targets_.callers_64, Text(">= %.2fx", targets_.callers_64));
        WantAtLeast(row, to_one, targets_.callers_64_to_one, ">= 1 caller");
      }
      return row;
    }
    Row row = MakeRow(name, "us", rounds, *raw_);
    const double to_plain = row.median / plain_->Median();
    row.note = Text("%.2fx ", to_plain) + name_;
    if (variant.shape == Shape::kPart) {
      WantAtMost(row, to_plain, targets_.part, Text("<= %.1fx ", targets_.part) + name_);
    }
    return row;
  }

  const std::string name_;
  const CallSize& call_;
  const CallTargets& targets_;
  Turns turns_;
  Rounds tails_;
  const Rounds* raw_ = nullptr;
  const Rounds* plain_ = nullptr;
  std::vector<const Rounds*> variants_;
};

std::vector<Row> MeasureCalls(const std::string& operation, const Settings& settings,
                              const CallTargets& targets, const std::vector<CallSize>& sizes,
                              const Way& way) {
  RawPeer raw;
  std::vector<Row> rows;
  for (const CallSize& size : sizes) {
    const auto more = SizeRows(operation, size, targets).Measure(settings, raw, way);
    rows.insert(rows.end(), more.begin(), more.end());
  }
  return rows;
}

const Variant kCallers8{".callers8", 8, Shape::kBody};
const Variant kCallers64{".callers64", 64, Shape::kBody};
const Variant kHeaders3{".headers3", 1, Shape::kHeaders};
const Variant kPart{".part", 1, Shape::kPart};

std::vector<CallSize> UsualSizes() {
  return {{kBodySizes[0], {kCallers8, kCallers64, kHeaders3}},
          {kBodySizes[1], {}},
          {kBodySizes[2], {kPart}},
          {kBodySizes[3], {}}};
}

std::function<std::vector<double>(const Order& order)> CallsOf(Child& plugin, Task task) {
  return [&plugin, task](Order order) {
    order.task = task;
    return plugin.Do(order);
  };
}

}  // namespace

std::vector<Row> MeasureSyncSend(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kServingPlugin});
  Host host(kEndpoint, {kServingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kServingPlugin);
  auto sizes = UsualSizes();
  sizes[1].variants.push_back(kCallers64);
  sizes.push_back({kBodySizes[4], {}});
  const auto calls = [&host](const Order& order) {
    return host.Calls(OneOf(EchoUrl(kServingPlugin)), order);
  };
  return MeasureCalls("sync_send", settings, kTargets.sync_send, sizes, calls);
}

std::vector<Row> MeasurePluginToHost(const Settings& settings) {
  Child plugin({"--role", "plugin", "--endpoint", kEndpoint, "--id", kCallingPlugin});
  Host host(kEndpoint, {kCallingPlugin});
  plugin.Do(Task::kConnect, 0, 0);
  host.WaitForPlugin(kCallingPlugin);
  return MeasureCalls("plugin_to_host", settings, kTargets.plugin_to_host, UsualSizes(),
                      CallsOf(plugin, Task::kCallHost));
}

std::vector<Row> MeasurePluginToPlugin(const Settings& settings) {
  Child server({"--role", "plugin", "--endpoint", kEndpoint, "--id", kServingPlugin});
  Child caller({"--role", "plugin", "--endpoint", kEndpoint, "--id", kCallingPlugin});
  Host host(kEndpoint, {kServingPlugin, kCallingPlugin});
  for (Child* const plugin : {&server, &caller}) plugin->Do(Task::kConnect, 0, 0);
  for (const char* const id : {kServingPlugin, kCallingPlugin}) host.WaitForPlugin(id);
  return MeasureCalls("plugin_to_plugin", settings, kTargets.plugin_to_plugin, UsualSizes(),
                      CallsOf(caller, Task::kCallPlugin));
}

}  // namespace bench
