#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>

#include "common/IndexedMap.h"

namespace tolm::test {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::Pointee;
using TolmLPCFrame::IndexedMap;

/// Keys on both sides of what an index keeps itself, and beyond.
std::string Key(std::size_t number) {
  return std::string(number % 131, 'k') + std::to_string(number);
}

std::string TextOf(std::size_t number) {
  return "a value that is too long to lie in a string itself: " + std::to_string(number);
}

template <typename T>
void ExpectTheSame(const IndexedMap<T>& indexed, const std::map<std::string, T>& plain) {
  EXPECT_EQ(indexed.ordered(), plain);
  for (const auto& [key, value] : plain) ASSERT_THAT(indexed.Find(key), Pointee(value)) << key;
}

template <typename T, typename Value>
void FillAndCompare(Value value) {
  std::mt19937 random(1);
  IndexedMap<T> indexed;
  std::map<std::string, T> plain;
  for (int i = 0; i < 20'000; ++i) {
    const std::size_t number = random() % 5000;
    const T new_value = value(random() % 1000);
    indexed.InsertOrAssign(Key(number), new_value);
    plain.insert_or_assign(Key(number), new_value);
  }
  ExpectTheSame(indexed, plain);
  for (std::size_t number = 5000; number < 10'000; ++number) EXPECT_EQ(indexed.Find(Key(number)), nullptr);

  const IndexedMap<T> moved = std::move(indexed);
  ExpectTheSame(moved, plain);
}

TEST(FrameIndexedMap, HoldsNumbersLikeAMap) {
  FillAndCompare<std::int32_t>([](std::size_t number) { return static_cast<std::int32_t>(number); });
}

TEST(FrameIndexedMap, HoldsTextsLikeAMap) {
  FillAndCompare<std::string>(TextOf);
}

TEST(FrameIndexedMap, AKeyMayHoldAnyByteAndNone) {
  IndexedMap<std::int32_t> map;
  const std::string zeros(3, '\0');
  map.InsertOrAssign("", 1);
  map.InsertOrAssign(zeros, 2);
  EXPECT_THAT(map.Find(""), Pointee(1));
  EXPECT_THAT(map.Find(zeros), Pointee(2));
  EXPECT_EQ(map.Find(zeros.substr(1)), nullptr);
}

TEST(FrameIndexedMap, IsEmptyAndOfUseWhenItWasCleared) {
  IndexedMap<std::string> map;
  map.InsertOrAssign("a", "1");
  map.Clear();
  EXPECT_EQ(map.Find("a"), nullptr);
  map.InsertOrAssign("b", "2");
  EXPECT_EQ(map.Find("a"), nullptr);
  EXPECT_THAT(map.ordered(), ElementsAre(Pair("b", "2")));
}

}  // namespace
}  // namespace tolm::test
