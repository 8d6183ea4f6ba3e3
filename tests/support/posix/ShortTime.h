#pragma once

#include <chrono>

namespace tolm::test {

/// What the frame waits for seconds takes milliseconds in a program that is linked with ShortTime.cpp, which
/// stands in the clock's place, and with the option that leads ConditionAndMutex::WaitFor there.
inline constexpr int kTimesShorter = 1000;

/// In real time: a caller's pace, a handler's work, that is played. Nobody waits for a result in this way.
void LetPass(std::chrono::microseconds time);

}  // namespace tolm::test
