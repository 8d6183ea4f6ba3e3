#include "os/LargeBlocks.h"

namespace os {

// The heap knows no such threshold.
void ExpectLargeBlocks() {}

}  // namespace os
