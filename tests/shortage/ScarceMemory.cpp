#include "ScarceMemory.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <limits>

#include "support/OwnNew.h"

namespace tolm::test {
namespace {

constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

std::atomic<std::uint64_t> g_first_refused{kNever};
std::atomic<ScarceMemory::Refuse> g_refuse{ScarceMemory::Refuse::kOne};
std::atomic<ScarceMemory::Of> g_of{ScarceMemory::Of::kAllThreads};
std::atomic<const void*> g_asking_thread{nullptr};
std::atomic<std::uint64_t> g_asked{0};
std::atomic<std::uint64_t> g_refused{0};

thread_local int t_spared = 0;

bool IsMeant() noexcept {
  const ScarceMemory::Of of = g_of;
  if (of == ScarceMemory::Of::kAllThreads) return true;
  return (of == ScarceMemory::Of::kThisThread) == (g_asking_thread == &t_spared);
}

bool IsRefused() noexcept {
  const std::uint64_t first = g_first_refused;
  if (first == kNever || t_spared > 0 || !IsMeant()) return false;
  const std::uint64_t number = ++g_asked;
  if (number < first || (number > first && g_refuse == ScarceMemory::Refuse::kOne)) return false;
  ++g_refused;
  return true;
}

}  // namespace

ScarceMemory::ScarceMemory(std::uint64_t number, Of of, Refuse refuse) {
  g_asked = 0;
  g_refused = 0;
  g_of = of;
  g_refuse = refuse;
  g_asking_thread = &t_spared;
  g_first_refused = number;
}

ScarceMemory::~ScarceMemory() {
  g_first_refused = kNever;
}

std::uint64_t ScarceMemory::Refused() {
  return g_refused;
}

Spared::Spared() {
  ++t_spared;
}

Spared::~Spared() {
  --t_spared;
}

// Its memory comes from malloc, which is asked below.
bool MayAllocate(std::size_t /*size*/) noexcept {
  return true;
}

}  // namespace tolm::test

// The linker leads to these what this program's own code asks malloc and its kin for.
#define TOLM_VISIBLE __attribute__((visibility("default")))

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);

TOLM_VISIBLE void* __wrap_malloc(std::size_t size) {
  if (!tolm::test::IsRefused()) return __real_malloc(size);
  errno = ENOMEM;
  return nullptr;
}
TOLM_VISIBLE void* __wrap_calloc(std::size_t count, std::size_t size) {
  if (!tolm::test::IsRefused()) return __real_calloc(count, size);
  errno = ENOMEM;
  return nullptr;
}
TOLM_VISIBLE void* __wrap_realloc(void* memory, std::size_t size) {
  if (!tolm::test::IsRefused()) return __real_realloc(memory, size);
  errno = ENOMEM;
  return nullptr;
}
}
