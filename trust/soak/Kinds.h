#pragma once

#include <chrono>
#include <string_view>
#include <vector>

namespace trust {

// The pauses behind each round of what is repeated.
inline constexpr std::chrono::milliseconds kAlphaCallPause(2);
inline constexpr std::chrono::milliseconds kBetaCallPause(3);
inline constexpr std::chrono::milliseconds kAsyncPause(5);
inline constexpr std::chrono::milliseconds kPluginPause(20);
inline constexpr std::chrono::milliseconds kPartsPause(50);
inline constexpr std::chrono::milliseconds kGuardPause(50);
inline constexpr std::chrono::milliseconds kComingPause(200);
inline constexpr std::chrono::milliseconds kFailuresPause(300);
inline constexpr std::chrono::milliseconds kLargeBodyPause(700);
inline constexpr std::chrono::milliseconds kKillingPause(1500);

// What comes only in each so many rounds.
inline constexpr int kRoundsOfRareOrders = 10;
inline constexpr int kGuardRoundsOfLargeText = 20;
inline constexpr int kGuardRoundsOfConnection = 50;

/// A kind of what is done.
struct Kind {
  std::string_view name;
  /// How often it comes in a second when a round takes no time. 0: it is looked at in the end, `in_the_end`
  /// times.
  double per_second;
  int in_the_end;

  /// How often it has to have come in a run of so many seconds.
  double Least(double seconds) const;
};

/// All that are counted, by name.
const std::vector<Kind>& Kinds();

}  // namespace trust
