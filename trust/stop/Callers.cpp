#include "Callers.h"

#include <chrono>
#include <memory>
#include <utility>

#include "Stage.h"
#include "support/Wait.h"

namespace trust {

void Callers::Add(Call call) {
  callers_.push_back(std::make_unique<Caller>());
  Caller& caller = *callers_.back();
  caller.thread = std::jthread([this, &caller, call = std::move(call)](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      ++caller.begun;
      if (!call()) ++without_code_;
      ++caller.done;
      // Others are to have their turn, also where everything fails at once.
      LetPass(std::chrono::microseconds(200));
    }
  });
}

void Callers::End() {
  for (const auto& caller : callers_) caller->thread.request_stop();
  callers_.clear();
}

long Callers::WaitForThoseUnderWay() const {
  std::vector<long> begun;
  for (const auto& caller : callers_) begun.push_back(caller->begun);
  long late = 0;
  for (std::size_t i = 0; i < callers_.size(); ++i) {
    if (!tolm::test::WaitFor([&] { return callers_[i]->done >= begun[i]; })) ++late;
  }
  return late;
}

long Callers::Done() const {
  long done = 0;
  for (const auto& caller : callers_) done += caller->done;
  return done;
}

}  // namespace trust
