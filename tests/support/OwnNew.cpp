// The global operator new, by malloc, with a say in each allocation.

#include "support/OwnNew.h"

#include <cstdlib>
#include <new>

// The array forms too: a sanitizer's own do not come through the single ones.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return tolm::test::MayAllocate(size) ? std::malloc(size != 0 ? size : 1) : nullptr;
}
void* operator new(std::size_t size) {
  if (void* const memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return operator new(size, std::nothrow);
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
