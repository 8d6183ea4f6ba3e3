#include "Targets.h"

namespace bench {

const Targets kTargets{.sync_send = 2.0,
                       .sync_send_p99 = 5.0,
                       .plugin_to_host = 4.5,
                       .plugin_to_plugin = 7.0,
                       .notifications_per_second = 400'000,
                       .bandwidth = 0.5};

}  // namespace bench
