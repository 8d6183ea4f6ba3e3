#include "Targets.h"

namespace bench {

const Targets kTargets{.sync_send = {.bytes_64 = 1.5,
                                     .p99_of_64 = 3.0,
                                     .bytes_1m = 1.4,
                                     .bytes_16m = 1.4,
                                     .part = 2.5,
                                     .callers_64 = 0.94},
                       .plugin_to_host = {.bytes_64 = 2.8},
                       .plugin_to_plugin = {.bytes_64 = 4.5, .callers_64 = 0.5},
                       .notify_burst_per_second = 3'000'000,
                       .notify_single = 0.9,
                       .bandwidth = 0.5,
                       .lookup_1k_ns = 250,
                       .lookup_growth = 4.0};

}  // namespace bench
