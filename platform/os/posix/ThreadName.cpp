#include "os/ThreadName.h"

#include <cstring>
#include <pthread.h>

namespace os {

void SetThreadName(const char* name) {
  char cut[16] = {};
  std::strncpy(cut, name, sizeof cut - 1);
  ::pthread_setname_np(::pthread_self(), cut);
}

}  // namespace os
