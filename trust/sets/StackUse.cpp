#include "StackUse.h"

#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace trust {
namespace {

constexpr std::size_t kGuardBytes = 64 * 1024;
constexpr unsigned char kUntouched = 0xA5;

/// A stack whose bytes are known, with a place below it that may not be touched.
class KnownStack {
 public:
  KnownStack()
      : all_(::mmap(nullptr, kGuardBytes + kStackBytes, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {
    if (all_ == MAP_FAILED || ::mprotect(all_, kGuardBytes, PROT_NONE) != 0) {
      throw std::runtime_error("there is no memory for a stack");
    }
    std::memset(lowest(), kUntouched, kStackBytes);
  }
  ~KnownStack() { ::munmap(all_, kGuardBytes + kStackBytes); }
  KnownStack(const KnownStack&) = delete;
  KnownStack& operator=(const KnownStack&) = delete;

  unsigned char* lowest() const { return static_cast<unsigned char*>(all_) + kGuardBytes; }
  std::size_t Used() const {
    const unsigned char* const end = lowest() + kStackBytes;
    const auto* const first = std::find_if(lowest(), const_cast<unsigned char*>(end),
                                           [](unsigned char byte) { return byte != kUntouched; });
    return static_cast<std::size_t>(end - first);
  }

 private:
  void* const all_;
};

void* Act(void* act) {
  (*static_cast<const std::function<void()>*>(act))();
  return nullptr;
}

}  // namespace

std::size_t StackUse(const std::function<void()>& act) {
  const KnownStack stack;
  pthread_attr_t attributes;
  pthread_t thread{};
  ::pthread_attr_init(&attributes);
  const bool made =
      ::pthread_attr_setstack(&attributes, stack.lowest(), kStackBytes) == 0 &&
      ::pthread_create(&thread, &attributes, &Act, const_cast<std::function<void()>*>(&act)) == 0;
  ::pthread_attr_destroy(&attributes);
  if (!made || ::pthread_join(thread, nullptr) != 0) throw std::runtime_error("no thread with such a stack");
  return stack.Used();
}

}  // namespace trust
