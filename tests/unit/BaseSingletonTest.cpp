#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <type_traits>
#include <vector>

#include "TolmBase/Singleton.h"

namespace {

using Tolm::Base::CSingleton;

std::atomic<int> g_made{0};

class Counted : Tolm::Base::CNoncopyable {
  friend class CSingleton<Counted>;
  Counted() { ++g_made; }
};

static_assert(!std::is_copy_constructible_v<Counted> && !std::is_move_constructible_v<Counted>);
static_assert(!std::is_copy_assignable_v<Counted> && !std::is_move_assignable_v<Counted>);

TEST(Singleton, IsMadeOnceByWhicheverThreadComesFirst) {
  std::vector<Counted*> seen(8);
  std::vector<std::thread> threads;
  for (Counted*& slot : seen) threads.emplace_back([&slot] { slot = &CSingleton<Counted>::Instance(); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<Counted*>(seen.begin(), seen.end()).size(), 1U);
  EXPECT_EQ(&CSingleton<Counted>::Instance(), seen.front());
  EXPECT_EQ(g_made, 1);
}

struct SaysWhenDestroyed {
  ~SaysWhenDestroyed() { std::_Exit(3); }
};

TEST(SingletonDeathTest, IsNotDestroyedWhenTheProcessExits) {
  EXPECT_EXIT(
      {
        CSingleton<SaysWhenDestroyed>::Instance();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
