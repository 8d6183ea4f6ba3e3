#pragma once

// Tasks for the tests of pools, and what holds them up.

#include <condition_variable>
#include <functional>
#include <mutex>
#include <utility>

#include "TolmBase/Task.h"
#include "support/Wait.h"

namespace tolm::test {

/// Holds tasks up until it is opened, at latest when it is destroyed.
class TaskGate {
 public:
  ~TaskGate() { Open(); }
  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    opened_.notify_all();
  }
  void Pass() {
    std::unique_lock lock(mutex_);
    ++arrived_;
    opened_.wait(lock, [this] { return open_; });
  }
  /// Whether `count` tasks have come to it.
  bool WaitForArrivals(int count) {
    return WaitFor([&] {
      const std::lock_guard lock(mutex_);
      return arrived_ >= count;
    });
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
  int arrived_ = 0;
};

/// Does `run` when it is run, and `destroyed` when it is destroyed.
class FunctionTask : public Tolm::Base::CTask {
 public:
  explicit FunctionTask(std::function<void()> run, std::function<void()> destroyed = {})
      : run_(std::move(run)), destroyed_(std::move(destroyed)) {}
  ~FunctionTask() override {
    if (destroyed_) destroyed_();
  }
  void Run() override { run_(); }

 private:
  const std::function<void()> run_;
  const std::function<void()> destroyed_;
};

}  // namespace tolm::test
