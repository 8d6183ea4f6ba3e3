#include "os/ThreadName.h"

#include <pthread.h>
#include <cstring>

namespace os {

void SetThreadName(const char* name) {
  char cut[16] = {};
  std::strncpy(cut, name, sizeof cut - 1);
  ::pthread_setname_np(::pthread_self(), cut);
}

}  // namespace os
