#pragma once

#include "Row.h"

namespace bench {

/// What is aimed at with calls of one kind.
struct CallTargets {
  // At most, as ratios to the bare stream with as many bytes.
  double bytes_64 = kNone;
  double p99_of_64 = kNone;  ///< the slowest hundredth, against the bare stream's median
  double bytes_1m = kNone;
  double bytes_16m = kNone;
  double part = kNone;  ///< a part of 64 KiB, against a body of 64 KiB
  // At least.
  double callers_64 = kNone;         ///< calls in a round trip of the bare stream
  double callers_64_to_one = kNone;  ///< calls in the time of one call of a single caller
};

/// What is aimed at and depends on the system. Twin files: posix/Targets.cpp and windows/Targets.cpp.
struct Targets {
  // All initialised, so that a system may leave some out.
  CallTargets sync_send{};
  CallTargets plugin_to_host{};
  CallTargets plugin_to_plugin{};
  // At least.
  double notify_burst_per_second = kNone;
  double notify_single = kNone;  ///< ratio to the bare stream
  double bandwidth = kNone;      ///< ratio to the bare stream
  // At most.
  double lookup_1k_ns = kNone;
  double lookup_growth = kNone;  ///< of a look-up among 1,000,000 urls to one among 1,000
};

extern const Targets kTargets;

}  // namespace bench
