#include "RestartPolicy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace guard {
namespace {

using Kind = RestartPolicy::Decision::Kind;

constexpr Milliseconds kShortRun{10};

/// In the middle of its range: no jitter.
double Middle() {
  return 0.5;
}

TimePoint At(long milliseconds) {
  return TimePoint(std::chrono::hours(1)) + Milliseconds(milliseconds);
}

RestartRules Endless() {
  RestartRules rules;
  rules.give_up_after = 0;
  return rules;
}

TEST(RestartPolicy, FollowsItsFormulaUpToTheCap) {
  RestartRules rules = Endless();
  rules.first_delay = Milliseconds(30);
  rules.factor = 1.5;
  rules.max_delay = Milliseconds(1000);
  RestartPolicy policy(rules, Middle);
  for (int n = 0; n < 40; ++n) {
    const double expected = std::min(30.0 * std::pow(1.5, n), 1000.0);
    const auto decision = policy.OnEnd(At(n), kShortRun, true);
    EXPECT_EQ(decision.kind, Kind::kRestart);
    EXPECT_EQ(decision.delay.count(), std::llround(expected)) << n;
  }
}

TEST(RestartPolicy, TheDefaultsAreFiftyMillisecondsDoubled) {
  RestartPolicy policy(RestartRules(), Middle);
  std::vector<Milliseconds::rep> delays;
  for (int n = 0; n < 5; ++n) delays.push_back(policy.OnEnd(At(n), kShortRun, true).delay.count());
  EXPECT_EQ(delays, (std::vector<Milliseconds::rep>{50, 100, 200, 400, 800}));
}

TEST(RestartPolicy, NeverRunsIntoInfinity) {
  RestartRules rules = Endless();
  rules.factor = 100;
  RestartPolicy policy(rules, Middle);
  for (int n = 0; n < 1000; ++n) EXPECT_LE(policy.OnEnd(At(n), kShortRun, true).delay, rules.max_delay);
}

TEST(RestartPolicy, JitterReachesBothOfItsBoundsAndNotBeyond) {
  double random = 0;
  RestartRules rules = Endless();
  rules.first_delay = Milliseconds(1000);
  rules.factor = 1;
  RestartPolicy policy(rules, [&random] { return random; });
  EXPECT_EQ(policy.OnEnd(At(0), kShortRun, true).delay, Milliseconds(800));
  random = std::nextafter(1.0, 0.0);
  EXPECT_EQ(policy.OnEnd(At(1), kShortRun, true).delay, Milliseconds(1200));

  std::mt19937 engine(7);
  RestartPolicy random_policy(rules, [&] { return std::uniform_real_distribution<double>(0, 1)(engine); });
  std::vector<Milliseconds> delays;
  for (int n = 0; n < 2000; ++n) delays.push_back(random_policy.OnEnd(At(n), kShortRun, true).delay);
  const auto [least, most] = std::minmax_element(delays.begin(), delays.end());
  EXPECT_GE(*least, Milliseconds(800));
  EXPECT_LT(*least, Milliseconds(830));
  EXPECT_LE(*most, Milliseconds(1200));
  EXPECT_GT(*most, Milliseconds(1170));
}

TEST(RestartPolicy, JitterDoesNotAddUpFromOneDelayToTheNext) {
  RestartPolicy policy(Endless(), [] { return 0.0; });
  EXPECT_EQ(policy.OnEnd(At(0), kShortRun, true).delay, Milliseconds(40));
  EXPECT_EQ(policy.OnEnd(At(1), kShortRun, true).delay, Milliseconds(80));
  EXPECT_EQ(policy.OnEnd(At(2), kShortRun, true).delay, Milliseconds(160));
}

TEST(RestartPolicy, GivesUpAfterSoManyRestartsWithinTheWindow) {
  RestartRules rules;
  rules.give_up_after = 3;
  rules.within = Milliseconds(1000);
  RestartPolicy policy(rules, Middle);
  for (int n = 0; n < 3; ++n) EXPECT_EQ(policy.OnEnd(At(n * 100), kShortRun, true).kind, Kind::kRestart);
  EXPECT_EQ(policy.OnEnd(At(999), kShortRun, true).kind, Kind::kGiveUp);
  EXPECT_EQ(policy.recent_restarts(), 3u);
}

TEST(RestartPolicy, RestartsThatAreAsOldAsTheWindowDoNotCount) {
  RestartRules rules;
  rules.give_up_after = 3;
  rules.within = Milliseconds(1000);
  RestartPolicy policy(rules, Middle);
  for (int n = 0; n < 3; ++n) policy.OnEnd(At(n * 100), kShortRun, true);
  EXPECT_EQ(policy.OnEnd(At(1000), kShortRun, true).kind, Kind::kRestart);
  EXPECT_EQ(policy.OnEnd(At(1050), kShortRun, true).kind, Kind::kGiveUp);
}

TEST(RestartPolicy, WithoutALimitItNeverGivesUp) {
  RestartPolicy policy(Endless(), Middle);
  for (int n = 0; n < 500; ++n) EXPECT_EQ(policy.OnEnd(At(n), kShortRun, true).kind, Kind::kRestart);
}

TEST(RestartPolicy, AStableRunMakesTheNextRestartTheFirstOneAgain) {
  RestartRules rules;
  rules.give_up_after = 3;
  rules.stable_after = Milliseconds(5000);
  RestartPolicy policy(rules, Middle);
  for (int n = 0; n < 3; ++n) policy.OnEnd(At(n), kShortRun, true);
  EXPECT_EQ(policy.OnEnd(At(6000), Milliseconds(5000), true),
            (RestartPolicy::Decision{Kind::kRestart, Milliseconds(50)}));
  EXPECT_EQ(policy.OnEnd(At(6001), Milliseconds(1), true).delay, Milliseconds(100));
}

TEST(RestartPolicy, ARunThatIsNearlyStableChangesNothing) {
  RestartRules rules;
  rules.stable_after = Milliseconds(5000);
  RestartPolicy policy(rules, Middle);
  policy.OnEnd(At(0), kShortRun, true);
  EXPECT_EQ(policy.OnEnd(At(5000), Milliseconds(4999), true).delay, Milliseconds(100));
}

TEST(RestartPolicy, ResetForgetsBackOffAndRestarts) {
  RestartRules rules;
  rules.give_up_after = 1;
  RestartPolicy policy(rules, Middle);
  policy.OnEnd(At(0), kShortRun, true);
  EXPECT_EQ(policy.OnEnd(At(1), kShortRun, true).kind, Kind::kGiveUp);
  policy.Reset();
  EXPECT_EQ(policy.OnEnd(At(2), kShortRun, true),
            (RestartPolicy::Decision{Kind::kRestart, Milliseconds(50)}));
}

TEST(RestartPolicy, WhatIsRestartedIsForThePolicyToSay) {
  struct Case {
    RestartRules::When when;
    bool crashed;
    Kind expected;
  };
  using When = RestartRules::When;
  for (const Case& one :
       {Case{When::kAlways, true, Kind::kRestart}, Case{When::kAlways, false, Kind::kRestart},
        Case{When::kOnCrash, true, Kind::kRestart}, Case{When::kOnCrash, false, Kind::kStay},
        Case{When::kNever, true, Kind::kStay}, Case{When::kNever, false, Kind::kStay}}) {
    RestartRules rules;
    rules.when = one.when;
    RestartPolicy policy(rules, Middle);
    EXPECT_EQ(policy.OnEnd(At(0), kShortRun, one.crashed).kind, one.expected)
        << static_cast<int>(one.when) << one.crashed;
  }
}

}  // namespace
}  // namespace guard
