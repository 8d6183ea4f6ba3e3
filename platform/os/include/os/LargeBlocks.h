#pragma once

namespace os {

/// To be called by who is going to allocate and free large blocks again and again. Some systems' allocators
/// give them back each time until they have seen that they come again, and the page faults of the next time
/// cost more than all that is done with the memory. Afterwards up to some 16 MiB of freed memory stay with
/// the process.
void ExpectLargeBlocks();

}  // namespace os
