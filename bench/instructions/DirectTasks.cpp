// A pool's task runs at once, on the thread that posts it.

#include <memory>

#include "TolmBase/MessageLoopDyThreadPool.h"

namespace instructions {

bool RunAtOnce(Tolm::Base::CMessageLoopDyThreadPool* pool, Tolm::Base::CTask* task) asm(
    "__wrap__ZN4Tolm4Base24CMessageLoopDyThreadPool8PostTaskEPNS0_5CTaskE");

bool RunAtOnce(Tolm::Base::CMessageLoopDyThreadPool*, Tolm::Base::CTask* task) {
  const std::unique_ptr<Tolm::Base::CTask> owned(task);
  owned->Run();
  return true;
}

}  // namespace instructions
