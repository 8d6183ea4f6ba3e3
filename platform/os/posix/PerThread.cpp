#include "os/PerThread.h"

#include <pthread.h>

#include <system_error>

namespace os {

// An exit here leaves them running.
bool AreOtherThreadsGone() {
  return false;
}

ThreadSlot::ThreadSlot(Destroy destroy) {
  pthread_key_t key{};
  if (const int error = ::pthread_key_create(&key, destroy); error != 0) {
    throw std::system_error(error, std::system_category(), "a slot for each thread");
  }
  slot_ = key;
}

void* ThreadSlot::Get() const {
  return ::pthread_getspecific(static_cast<pthread_key_t>(slot_));
}

bool ThreadSlot::Set(void* value) const {
  return ::pthread_setspecific(static_cast<pthread_key_t>(slot_), value) == 0;
}

}  // namespace os
