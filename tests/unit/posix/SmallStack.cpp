#include "SmallStack.h"

#include <pthread.h>

#include <stdexcept>

namespace tolm::test {
namespace {

void* Act(void* act) {
  (*static_cast<std::function<void()>*>(act))();
  return nullptr;
}

}  // namespace

void RunOnSmallStack(std::size_t bytes, std::function<void()> act) {
  pthread_attr_t attributes;
  pthread_t thread{};
  ::pthread_attr_init(&attributes);
  const bool made = ::pthread_attr_setstacksize(&attributes, bytes) == 0 &&
                    ::pthread_create(&thread, &attributes, &Act, &act) == 0;
  ::pthread_attr_destroy(&attributes);
  if (!made || ::pthread_join(thread, nullptr) != 0) throw std::runtime_error("no thread with such a stack");
}

}  // namespace tolm::test
