#include <gtest/gtest.h>

#include <cstddef>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TolmBase/GuidUtil.h"

namespace {

using Tolm::Base::GuidUtil::CreateGuid;

TEST(Guid, HasTheFormOfARandomGuidInLowerCase) {
  for (int i = 0; i < 100; ++i) {
    const std::string guid = CreateGuid();
    ASSERT_EQ(guid.size(), 36U);
    for (std::size_t at = 0; at < guid.size(); ++at) {
      const bool is_dash = at == 8 || at == 13 || at == 18 || at == 23;
      const std::string allowed = is_dash ? "-" : "0123456789abcdef";
      EXPECT_NE(allowed.find(guid[at]), std::string::npos) << guid << " at " << at;
    }
    EXPECT_EQ(guid[14], '4') << "version";
    EXPECT_NE(std::string("89ab").find(guid[19]), std::string::npos) << "variant of " << guid;
  }
}

TEST(Guid, IsNeverRepeatedByManyThreads) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kPerThread = 2000;
  std::vector<std::vector<std::string>> made(kThreads);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&mine = made[i]] {
      for (std::size_t n = 0; n < kPerThread; ++n) mine.push_back(CreateGuid());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::string> all;
  for (const auto& mine : made) all.insert(mine.begin(), mine.end());
  EXPECT_EQ(all.size(), kThreads * kPerThread);
}

}  // namespace
