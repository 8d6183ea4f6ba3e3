#include "pressure/ScarceMemory.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace trust {
namespace {

constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

std::atomic<std::uint64_t> g_first_refused{kNever};
std::atomic<bool> g_all_later{false};
std::atomic<std::uint64_t> g_asked{0};
std::atomic<std::uint64_t> g_refused{0};

bool IsRefused(std::size_t size) {
  if (size < kLargeBlock) return false;
  const std::uint64_t first = g_first_refused.load();
  if (first == kNever) return false;
  const std::uint64_t number = ++g_asked;
  if (number != first && !(g_all_later && number > first)) return false;
  ++g_refused;
  return true;
}

}  // namespace

ScarceMemory::ScarceMemory(std::uint64_t number, bool all_later) {
  g_asked = 0;
  g_refused = 0;
  g_all_later = all_later;
  g_first_refused = number;
}

ScarceMemory::~ScarceMemory() {
  g_first_refused = kNever;
}

std::uint64_t ScarceMemory::Refused() {
  return g_refused;
}

}  // namespace trust

// Every form that is not told here comes down to these; a sanitizer's own forms do not.

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return trust::IsRefused(size) ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* operator new(std::size_t size) {
  void* const block = operator new(size, std::nothrow);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return operator new(size, std::nothrow);
}

void operator delete(void* block) noexcept {
  std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}

void* operator new[](std::size_t size) {
  return operator new(size);
}

void operator delete[](void* block) noexcept {
  std::free(block);
}

void operator delete[](void* block, std::size_t) noexcept {
  std::free(block);
}
