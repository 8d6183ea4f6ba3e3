#include "net/ConditionAndMutex.h"

#include <chrono>

namespace TolmLPCFrame {

bool ConditionAndMutex::WaitFor(os::UniqueLock& lock, std::int32_t timeout_ms,
                                const std::function<bool()>& is_over) {
  return condition.wait_for(lock, std::chrono::milliseconds(timeout_ms), is_over);
}

}  // namespace TolmLPCFrame
