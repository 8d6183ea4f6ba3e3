#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "TolmBase/Task.h"

namespace Tolm::Base {

/// First in, first out. Only Push needs memory: an empty queue has none, unlike std::deque's.
class TaskQueue {
 public:
  bool empty() const { return count_ == 0; }
  std::size_t size() const { return count_; }

  /// `task` stays the caller's when there is no memory.
  void Push(std::unique_ptr<CTask>&& task) {
    if (count_ == places_.size()) Grow();
    places_[Place(count_)] = std::move(task);
    ++count_;
  }
  /// REQUIRES: there is one. The oldest.
  std::unique_ptr<CTask> Pop() {
    std::unique_ptr<CTask> task = std::move(places_[first_]);
    first_ = Place(1);
    --count_;
    if (count_ == 0 && places_.size() > kKeptPlaces) std::vector<std::unique_ptr<CTask>>().swap(places_);
    if (count_ == 0) first_ = 0;
    return task;
  }
  /// REQUIRES: there is one. The newest.
  std::unique_ptr<CTask> PopNewest() {
    --count_;
    return std::move(places_[Place(count_)]);
  }
  void swap(TaskQueue& other) noexcept {
    places_.swap(other.places_);
    std::swap(first_, other.first_);
    std::swap(count_, other.count_);
  }

 private:
  static constexpr std::size_t kFirstPlaces = 64;
  static constexpr std::size_t kKeptPlaces = 4096;

  // The number of places is a power of two.
  std::size_t Place(std::size_t behind_first) const { return (first_ + behind_first) & (places_.size() - 1); }
  void Grow() {
    std::vector<std::unique_ptr<CTask>> more(places_.empty() ? kFirstPlaces : 2 * places_.size());
    for (std::size_t i = 0; i < count_; ++i) more[i] = std::move(places_[Place(i)]);
    places_.swap(more);
    first_ = 0;
  }

  std::vector<std::unique_ptr<CTask>> places_;
  std::size_t first_ = 0;
  std::size_t count_ = 0;
};

}  // namespace Tolm::Base
