// Stacks larger than the address space see to it.

#include "NoThreads.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstddef>

namespace tolm::test {
namespace {

std::size_t g_usual_stack = 0;

}  // namespace

NoThreads::NoThreads() {
  pthread_attr_t attributes;
  EXPECT_EQ(::pthread_getattr_default_np(&attributes), 0);
  EXPECT_EQ(::pthread_attr_getstacksize(&attributes, &g_usual_stack), 0);
  EXPECT_EQ(::pthread_attr_setstacksize(&attributes, std::size_t{1} << 47), 0);
  EXPECT_EQ(::pthread_setattr_default_np(&attributes), 0);
  ::pthread_attr_destroy(&attributes);
}

NoThreads::~NoThreads() {
  pthread_attr_t attributes;
  ::pthread_getattr_default_np(&attributes);
  ::pthread_attr_setstacksize(&attributes, g_usual_stack);
  ::pthread_setattr_default_np(&attributes);
  ::pthread_attr_destroy(&attributes);
}

}  // namespace tolm::test
