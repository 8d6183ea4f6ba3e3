#include "OwnThread.h"

#include <pthread.h>

namespace tolm::test {

std::string OwnThreadName() {
  char name[64] = {};
  ::pthread_getname_np(::pthread_self(), name, sizeof name);
  return name;
}

}  // namespace tolm::test
