#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace proto {

/// Memory for RapidJSON, which takes what its own allocator gives without a look, a null pointer too. This
/// one throws std::bad_alloc.
class RapidJsonMemory {
 public:
  static constexpr bool kNeedFree = true;

  void* Malloc(std::size_t size) { return size != 0 ? Checked(std::malloc(size)) : nullptr; }
  void* Realloc(void* memory, std::size_t /*size_before*/, std::size_t size) {
    if (size != 0) return Checked(std::realloc(memory, size));
    std::free(memory);
    return nullptr;
  }
  static void Free(void* memory) noexcept { std::free(memory); }

  bool operator==(const RapidJsonMemory& /*other*/) const noexcept { return true; }
  bool operator!=(const RapidJsonMemory& /*other*/) const noexcept { return false; }

 private:
  static void* Checked(void* memory) {
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
  }
};

}  // namespace proto
