#include "Callers.h"

#include <exception>
#include <stdexcept>
#include <utility>

namespace bench {

Callers::Callers(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) threads_.emplace_back([this] { Run(); });
}

Callers::~Callers() {
  {
    const std::lock_guard lock(mutex_);
    ends_ = true;
  }
  begin_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

double Callers::PerSecond(std::size_t calls, const std::function<void()>& call) {
  std::unique_lock lock(mutex_);
  call_ = &call;
  calls_ = calls;
  begun_ = 0;
  working_ = threads_.size();
  ++round_;
  const auto begin = Clock::now();
  begin_.notify_all();
  end_.wait(lock, [this] { return working_ == 0; });
  const double seconds = SecondsSince(begin);
  if (!fault_.empty()) throw std::runtime_error(std::exchange(fault_, {}));
  return static_cast<double>(calls) / seconds;
}

void Callers::Run() {
  std::unique_lock lock(mutex_);
  for (std::uint64_t done = 0;; ++done) {
    begin_.wait(lock, [&] { return ends_ || round_ != done; });
    if (ends_) return;
    const auto& call = *call_;
    const std::size_t calls = calls_;
    lock.unlock();
    std::string fault;
    try {
      while (begun_++ < calls) call();
    } catch (const std::exception& error) {
      fault = error.what();
    }
    lock.lock();
    if (!fault.empty()) fault_ = fault;
    if (--working_ == 0) end_.notify_all();
  }
}

}  // namespace bench
