#include "Targets.h"

namespace bench {

const Targets kTargets{.sync_send = 2.5};

}  // namespace bench
