#include "Life.h"

#include <sys/mman.h>

#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

namespace trust {
namespace {

constexpr long kMostLives = 1 << 15;
constexpr std::size_t kPage = 4096;

struct Page {
  Life::Deed deed;
  std::atomic<long> inside;
};

// One page each, at addresses that are never used twice.
char* Pages() {
  static char* const pages = [] {
    void* const all =
        ::mmap(nullptr, kMostLives * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (all == MAP_FAILED) throw std::bad_alloc();
    return static_cast<char*>(all);
  }();
  return pages;
}

std::array<std::atomic<bool>, kMostLives> over;
std::atomic<long> last_number{-1};
std::atomic<long> callbacks_after{0};
std::array<std::atomic<long>, 6> seen;

}  // namespace

Life::Life(Deed deed) : number_(++last_number), page_(Pages() + number_ * static_cast<long>(kPage)) {
  if (number_ >= kMostLives || ::mprotect(page_, kPage, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
  new (page_) Page{deed, {0}};
  TolmLPCFrame::RegisterLpcMsgCallback(Called, page_);
}

Life::~Life() {
  ::madvise(page_, kPage, MADV_DONTNEED);
  ::mprotect(page_, kPage, PROT_NONE);
}

long Life::Inside() const {
  return static_cast<Page*>(page_)->inside;
}

void Life::Over() {
  over[static_cast<std::size_t>(number_)] = true;
}

bool Life::Called(const TolmLPCFrame::FrameCallBackData& event, void* user) {
  const auto number = (static_cast<char*>(user) - Pages()) / static_cast<long>(kPage);
  if (over[static_cast<std::size_t>(number)]) {
    ++callbacks_after;
    return true;
  }
  auto& page = *static_cast<Page*>(user);
  ++page.inside;
  ++seen[static_cast<std::size_t>(event.LpcMsgType)];
  page.deed(event, number);
  --page.inside;
  return true;
}

long Life::CallbacksAfter() {
  return callbacks_after;
}

std::array<long, 6> Life::Seen() {
  std::array<long, 6> all{};
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = seen[i];
  return all;
}

}  // namespace trust
