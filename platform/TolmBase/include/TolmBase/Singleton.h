#pragma once

#include "TolmBase/Noncopyable.h"

namespace Tolm::Base {

/// The one instance of T in the process: made on first use, by whichever thread comes first, and never
/// destroyed, so that threads which still run while the process exits find it alive.
/// T befriends CSingleton<T> when its constructor is private.
template <typename T>
class CSingleton : CNoncopyable {
 public:
  static T& Instance() {
    static T* const instance = new T;
    return *instance;
  }

  CSingleton() = delete;
};

}  // namespace Tolm::Base
