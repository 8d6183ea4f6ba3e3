#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace trust {

/// Threads that call over and over, one kind of call each, also while there is no frame.
class Callers {
 public:
  /// Makes one call, and says whether it came to an end that it may have: an answer, or a failure with a
  /// code.
  using Call = std::function<bool()>;

  Callers() = default;
  ~Callers() { End(); }
  Callers(const Callers&) = delete;
  Callers& operator=(const Callers&) = delete;

  void Add(Call call);
  void End();
  std::size_t Count() const { return callers_.size(); }

  /// Waits until every call that is under way now has returned, and gives how many have not in time.
  long WaitForThoseUnderWay() const;
  /// Calls that have returned.
  long Done() const;
  /// Calls that failed without a code.
  long WithoutCode() const { return without_code_; }

 private:
  struct Caller {
    std::atomic<long> begun{0};
    std::atomic<long> done{0};
    std::jthread thread;
  };

  std::vector<std::unique_ptr<Caller>> callers_;
  std::atomic<long> without_code_{0};
};

}  // namespace trust
