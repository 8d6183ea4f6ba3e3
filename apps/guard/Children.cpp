#include "Children.h"

#include <utility>

#include "os/ThreadName.h"

namespace guard {

class Children::Child : public Process {
 public:
  explicit Child(Children& owner) : owner_(owner), process_(1) {}
  ~Child() override { owner_.Bury(process_); }

  bool Start(os::ProcessRequest request, std::string& why) {
    process_.front() = os::ChildProcess::Start(std::move(request), why);
    return process_.front() != nullptr;
  }
  long id() const override { return process_.front()->id(); }
  void AskToEnd() override { process_.front()->AskToEnd(); }
  void KillTree() override { process_.front()->KillTree(); }

 private:
  Children& owner_;
  Grave process_;  // one, whose place among the dead is made before it lives
};

Children::Children() : thread_([this] { ThreadMain(); }) {}

Children::~Children() {
  {
    const os::MutexLock lock(mutex_);
    stopping_ = true;
    changed_.notify_one();
  }
  thread_.join();
}

std::unique_ptr<Process> Children::Start(os::ProcessRequest request, std::string& why) {
  auto child = std::make_unique<Child>(*this);
  return child->Start(std::move(request), why) ? std::move(child) : nullptr;
}

void Children::Bury(Grave& process) noexcept {
  const os::MutexLock lock(mutex_);
  dead_.splice(dead_.end(), process);
  changed_.notify_one();
}

void Children::ThreadMain() {
  os::SetThreadName("guard-bury");
  os::UniqueLock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this]() TOLM_REQUIRES(mutex_) { return stopping_ || !dead_.empty(); });
    if (dead_.empty()) return;
    auto process = std::move(dead_.front());
    dead_.pop_front();
    lock.unlock();
    process.reset();
    lock.lock();
  }
}

}  // namespace guard
