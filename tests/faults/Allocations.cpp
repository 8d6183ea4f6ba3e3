// operator new, with a say in each. What is beneath it stays: the library's, or a sanitizer's.

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Sites.h"

namespace {

using tolm::faults::Fails;
using tolm::faults::Next;

template <typename Function>
Function* Real(std::atomic<void*>& kept, const char* name) {
  void* found = kept.load(std::memory_order_relaxed);
  if (found == nullptr) kept = found = Next(name);
  return reinterpret_cast<Function*>(found);
}

}  // namespace

#define TOLM_VISIBLE __attribute__((visibility("default")))

TOLM_VISIBLE void* operator new(std::size_t size) {
  static std::atomic<void*> next;
  if (Fails("new")) throw std::bad_alloc();
  return Real<void*(std::size_t)>(next, "_Znwm")(size);
}
TOLM_VISIBLE void* operator new[](std::size_t size) {
  static std::atomic<void*> next;
  if (Fails("new[]")) throw std::bad_alloc();
  return Real<void*(std::size_t)>(next, "_Znam")(size);
}
TOLM_VISIBLE void* operator new(std::size_t size, const std::nothrow_t& tag) noexcept {
  static std::atomic<void*> next;
  if (Fails("new nothrow")) return nullptr;
  return Real<void*(std::size_t, const std::nothrow_t&)>(next, "_ZnwmRKSt9nothrow_t")(size, tag);
}
TOLM_VISIBLE void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  static std::atomic<void*> next;
  if (Fails("new[] nothrow")) return nullptr;
  return Real<void*(std::size_t, const std::nothrow_t&)>(next, "_ZnamRKSt9nothrow_t")(size, tag);
}
TOLM_VISIBLE void* operator new(std::size_t size, std::align_val_t alignment) {
  static std::atomic<void*> next;
  if (Fails("new aligned")) throw std::bad_alloc();
  return Real<void*(std::size_t, std::align_val_t)>(next, "_ZnwmSt11align_val_t")(size, alignment);
}

// Those of C, where the program itself names them (--wrap). Visible, since the linker leads what a shared
// library asks for here as well, and refuses what is hidden.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
char* __real_strdup(const char* text);

TOLM_VISIBLE void* __wrap_malloc(std::size_t size) {
  if (!Fails("malloc")) return __real_malloc(size);
  errno = ENOMEM;
  return nullptr;
}
TOLM_VISIBLE void* __wrap_calloc(std::size_t count, std::size_t size) {
  if (!Fails("calloc")) return __real_calloc(count, size);
  errno = ENOMEM;
  return nullptr;
}
TOLM_VISIBLE void* __wrap_realloc(void* memory, std::size_t size) {
  if (!Fails("realloc")) return __real_realloc(memory, size);
  errno = ENOMEM;
  return nullptr;
}
TOLM_VISIBLE char* __wrap_strdup(const char* text) {
  if (!Fails("strdup")) return __real_strdup(text);
  errno = ENOMEM;
  return nullptr;
}
}
