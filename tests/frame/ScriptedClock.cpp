#include "ScriptedClock.h"

#include <string>

#include "Journal.h"
#include "KRT/KRT.h"

namespace tolm::test {

ScriptedClock& ScriptedClock::Get() {
  static ScriptedClock* const clock = new ScriptedClock;
  return *clock;
}

void ScriptedClock::Reset() {
  tick_ = 1000;
  sleeps_ = 0;
  in_sleep = [](int) {};
}

void ScriptedClock::PassOver(int milliseconds) {
  Journal::Note("krt.Sleep " + std::to_string(milliseconds));
  in_sleep(++sleeps_);
}

}  // namespace tolm::test

std::int64_t KRT_GetTimeTick64() {
  return tolm::test::ScriptedClock::Get().Tick();
}

void KRT_Sleep(int milliseconds) {
  tolm::test::ScriptedClock::Get().PassOver(milliseconds);
}
