#include "wire/FirstId.h"

#include <algorithm>
#include <atomic>
#include <chrono>

namespace lpc::wire {

std::uint64_t FirstId() {
  // Some clocks stand still for milliseconds, in which a process may begin anew.
  constexpr std::uint64_t kApart = std::uint64_t{1} << 16;
  static std::atomic<std::uint64_t> latest{0};
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  const auto now =
      static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(since_1970).count());
  std::uint64_t before = latest;
  std::uint64_t first = 0;
  do {
    first = std::max(now, before + kApart);
  } while (!latest.compare_exchange_weak(before, first));
  return first;
}

}  // namespace lpc::wire
