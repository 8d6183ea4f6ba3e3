#pragma once

#include "TolmBase/Noncopyable.h"

namespace Tolm::Base {

/// A piece of work for a CMessageLoopDyThreadPool, which runs it at most once and then deletes it.
class CTask : CNoncopyable {
 public:
  virtual ~CTask() = default;
  /// An exception that leaves it is caught and logged by the pool.
  virtual void Run() = 0;
};

}  // namespace Tolm::Base
