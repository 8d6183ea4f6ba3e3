#pragma once

#include <utility>

#include "common/SharedMutex.h"

namespace TolmLPCFrame {

/// A value behind its own readers-writer mutex. The only ways to it are a function that reads, under the
/// shared lock, and one that changes, under the exclusive lock; each lock lasts for that call only.
/// The function must not call out of the frame: no callback, no send, no log line. (PluginShutdown.cpp
/// has the one exception, and its reason.)
template <typename T>
class Guarded {
 public:
  template <typename Reader>
  auto Read(Reader&& reader) const {
    const SharedLock lock(mutex_);
    return std::forward<Reader>(reader)(static_cast<const T&>(value_));
  }

  template <typename Writer>
  auto Write(Writer&& writer) {
    const ExclusiveLock lock(mutex_);
    return std::forward<Writer>(writer)(value_);
  }

 private:
  mutable SharedMutex mutex_;
  T value_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace TolmLPCFrame
