#pragma once

#include <cstdint>

/// Milliseconds since some moment before the process started, by a clock that never goes back.
std::int64_t KRT_GetTimeTick64();

/// Sleeps for `milliseconds`; 0 or less returns at once.
void KRT_Sleep(int milliseconds);
