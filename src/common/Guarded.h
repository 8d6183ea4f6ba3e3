#pragma once

#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <utility>

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
    const boost::shared_lock<boost::shared_mutex> lock(mutex_);
    return std::forward<Reader>(reader)(static_cast<const T&>(value_));
  }

  template <typename Writer>
  auto Write(Writer&& writer) {
    const boost::unique_lock<boost::shared_mutex> lock(mutex_);
    return std::forward<Writer>(writer)(value_);
  }

 private:
  mutable boost::shared_mutex mutex_;
  T value_;
};

}  // namespace TolmLPCFrame
