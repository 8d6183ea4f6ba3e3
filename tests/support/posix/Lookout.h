#pragma once

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <thread>

namespace tolm::test {

/// Looks on and on, on a thread of its own, for descriptors that a child of this process would inherit, other
/// than those that it would have inherited before.
class Lookout {
 public:
  Lookout();
  ~Lookout() { Finish(); }
  Lookout(const Lookout&) = delete;
  Lookout& operator=(const Lookout&) = delete;

  /// What was seen, as the system names it: files, "socket:[number]", "anon_inode:[eventfd]" and so on.
  std::set<std::string> Finish();
  int looks() const { return looks_; }

 private:
  void Look();

  const std::map<int, std::string> before_;
  std::atomic<bool> done_{false};
  std::atomic<int> looks_{0};
  std::set<std::string> found_;  // the thread's, until it has ended
  std::thread thread_;
};

}  // namespace tolm::test
