#pragma once

#include <list>
#include <memory>
#include <string>
#include <thread>

#include "Process.h"
#include "os/Mutex.h"

namespace guard {

/// The real processes. Processes that are done with are destroyed on a thread of its own, since that waits
/// for their handlers. Must outlive every process that it started.
class Children {
 public:
  Children();
  /// Waits until all processes that are done with are gone.
  ~Children();
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;

  /// As ProcessStarter says. Always to be called on the same thread, which must last as long as the
  /// processes: the system ties their lives to it.
  std::unique_ptr<Process> Start(os::ProcessRequest request, std::string& why);

 private:
  class Child;

  using Grave = std::list<std::unique_ptr<os::ChildProcess>>;

  void Bury(Grave& process) noexcept;
  void ThreadMain();

  os::Mutex mutex_;
  os::Condition changed_;
  Grave dead_ TOLM_GUARDED_BY(mutex_);
  bool stopping_ TOLM_GUARDED_BY(mutex_) = false;

  std::thread thread_;  // the last member: it uses the others
};

}  // namespace guard
