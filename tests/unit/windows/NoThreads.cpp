// A process here cannot be denied threads by the system, so the linker leads the standard library's call past
// this place.

#include "NoThreads.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace tolm::test {
namespace {

std::atomic<bool> g_none{false};

}  // namespace

extern "C" int RealCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                          void* argument) asm("__real_pthread_create");
extern "C" int PerhapsCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                             void* argument) asm("__wrap_pthread_create");

extern "C" int PerhapsCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                             void* argument) {
  return g_none ? EAGAIN : RealCreate(thread, attributes, run, argument);
}

NoThreads::NoThreads() {
  g_none = true;
}

NoThreads::~NoThreads() {
  g_none = false;
}

}  // namespace tolm::test
