#pragma once

#include "Row.h"

namespace bench {

/// What is aimed at and depends on the system. Twin files: posix/Targets.cpp and windows/Targets.cpp.
struct Targets {
  // Ratios to the bare stream for 64 B, at most; the slowest hundredth against the bare stream's median.
  double sync_send = kNone;
  double sync_send_p99 = kNone;
  double plugin_to_host = kNone;
  double plugin_to_plugin = kNone;
  // At least.
  double notifications_per_second = kNone;  ///< or half of the bare stream's writes
  double bandwidth = kNone;                 ///< ratio to the bare stream
};

extern const Targets kTargets;

}  // namespace bench
