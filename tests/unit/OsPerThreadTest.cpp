// A value for each thread.

#include "os/PerThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace os {
namespace {

std::atomic<int> g_made{0};
std::atomic<int> g_destroyed{0};
std::atomic<int> g_damaged{0};

/// Large enough for a destroyed object's memory to be given out again, which then shows.
struct Watched {
  Watched() : text(500, 'w') { ++g_made; }
  ~Watched() {
    const std::vector<char> over(sizeof(Watched), '\xEE');
    if (text != std::string(500, 'w')) ++g_damaged;
    ++g_destroyed;
  }
  std::string text;
  int count = 0;
};

PerThread<Watched>& OfEach() {
  static PerThread<Watched>& values = *new PerThread<Watched>;
  return values;
}

TEST(OsPerThread, EachThreadHasItsOwnValueThatEndsWithIt) {
  const int before = g_destroyed;
  OfEach().Get().count = 7;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([] {
      for (int turn = 1; turn <= 100; ++turn) EXPECT_EQ(++OfEach().Get().count, turn);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(g_destroyed - before, 8);
  EXPECT_EQ(g_damaged, 0);
  EXPECT_EQ(OfEach().Get().count, 7) << "this thread has not ended";
}

TEST(OsPerThread, AThreadThatUsesNoneMakesNone) {
  const int before = g_made;
  std::thread([] {}).join();
  EXPECT_EQ(g_made, before);
}

}  // namespace
}  // namespace os
