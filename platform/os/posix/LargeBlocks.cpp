#include "os/LargeBlocks.h"

#include <cstddef>
#include <cstdlib>

namespace os {

// The allocator of glibc keeps twice the largest block that was freed, which mallopt(3) calls a dynamic
// threshold. To tell it a fixed one would be the host's business. Untouched, the block is an address range
// and no memory.
void ExpectLargeBlocks() {
  constexpr std::size_t kLarge = 8u << 20;
  void* volatile block = std::malloc(kLarge);  // a compiler may leave out what nobody sees
  std::free(block);
}

}  // namespace os
