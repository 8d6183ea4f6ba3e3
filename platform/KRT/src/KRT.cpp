#include "KRT/KRT.h"

#include <chrono>
#include <thread>

std::int64_t KRT_GetTimeTick64() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

void KRT_Sleep(int milliseconds) {
  if (milliseconds > 0) std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}
