#include "Targets.h"

namespace bench {

const Targets kTargets{.sync_send = {.bytes_64 = 2.5, .callers_64_to_one = 1.0}, .lookup_growth = 5.0};

}  // namespace bench
