#include "Children.h"

#include <utility>

#include "os/ThreadName.h"

namespace guard {

class Children::Child : public Process {
 public:
  Child(Children& owner, std::unique_ptr<os::ChildProcess> process)
      : owner_(owner), process_(std::move(process)) {}
  ~Child() override { owner_.Bury(std::move(process_)); }

  long id() const override { return process_->id(); }
  void AskToEnd() override { process_->AskToEnd(); }
  void KillTree() override { process_->KillTree(); }

 private:
  Children& owner_;
  std::unique_ptr<os::ChildProcess> process_;
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
  auto process = os::ChildProcess::Start(std::move(request), why);
  if (!process) return nullptr;
  return std::make_unique<Child>(*this, std::move(process));
}

void Children::Bury(std::unique_ptr<os::ChildProcess> process) {
  const os::MutexLock lock(mutex_);
  dead_.push_back(std::move(process));
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
