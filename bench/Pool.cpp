// What it takes to have a task run by a pool's thread.

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "Measurements.h"
#include "RawPeer.h"
#include "Samples.h"
#include "TolmBase/MessageLoopDyThreadPool.h"
#include "Turns.h"

namespace bench {
namespace {

constexpr std::size_t kPerRound = 4000;
constexpr int kRounds = 10;

class Signal {
 public:
  void Set() {
    const std::lock_guard lock(mutex_);
    set_ = true;
    changed_.notify_one();
  }
  void Take() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return set_; });
    set_ = false;
  }

 private:
  std::mutex mutex_;
  // Guarded by mutex_.
  std::condition_variable changed_;
  bool set_ = false;
};

class SetSignal : public Tolm::Base::CTask {
 public:
  explicit SetSignal(Signal& signal) : signal_(signal) {}
  void Run() override { signal_.Set(); }

 private:
  Signal& signal_;
};

}  // namespace

std::vector<Row> MeasurePool(const Settings& settings) {
  Signal done;
  Tolm::Base::CMessageLoopDyThreadPool pool("bench");
  if (!pool.Start(1, 1, 0)) throw std::runtime_error("the pool does not start");
  RawPeer raw;
  const std::size_t count = settings.Samples(kPerRound);
  Turns turns;
  const Rounds& raw_trips = turns.Add([&] { return raw.PingPong(kBodySizes[0].bytes, count); });
  const Rounds& hand_offs = turns.Add([&] {
    std::vector<double> samples;
    samples.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      samples.push_back(Microseconds([&] {
        pool.PostTask(new SetSignal(done));
        done.Take();
      }));
    }
    return samples;
  });
  turns.Run(settings.Rounds(kRounds));
  pool.Stop(true);
  Row row = MakeRow("pool.handoff", "us", hand_offs, raw_trips);
  row.note = "a task there, its signal back";
  return {row};
}

}  // namespace bench
