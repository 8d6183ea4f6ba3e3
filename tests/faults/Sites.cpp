#include "Sites.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

extern "C" const char __executable_start;  // the linker's

namespace tolm::faults {
namespace {

enum Owner : std::uint32_t { kOurs = 1, kTests = 2 };

struct Code {
  std::uint32_t begin;
  std::uint32_t end;
  std::uint32_t owner;
};

constexpr std::size_t kMostFrames = 3;
// A helper that allocates is told apart by its caller, and that is enough.
constexpr std::size_t kFramesOfAllocation = 2;

struct Site {
  std::atomic<std::uint64_t> key;  // 0: free
  std::atomic<std::uint32_t> hits;
  char call[20];
  std::array<std::uint32_t, kMostFrames> frames;
};

// Shared with children that were forked.
struct Table {
  std::atomic<std::uint32_t> failed;
  std::array<Site, 1U << 14> sites;
};

const Code* g_code = nullptr;
std::size_t g_code_count = 0;
Table* g_table = nullptr;
const char* g_record = nullptr;
std::uint64_t g_target = 0;
bool g_always = false;
std::atomic<bool> g_awake{false};
thread_local bool t_inside = false;

// Past all that is replaced.
long Open(const char* path, int flags) {
  return ::syscall(SYS_openat, AT_FDCWD, path, flags | O_CLOEXEC, 0600);
}

std::uint32_t OwnerOf(std::uint32_t address) {
  const Code* const end = g_code + g_code_count;
  const Code* const next = std::upper_bound(
      g_code, end, address, [](std::uint32_t wanted, const Code& code) { return wanted < code.begin; });
  if (next == g_code || address >= next[-1].end) return 0;
  return next[-1].owner;
}

struct Walk {
  std::size_t wanted;
  std::size_t found = 0;
  std::size_t seen = 0;
  std::array<std::uint32_t, kMostFrames> frames{};
};

_Unwind_Reason_Code OnFrame(_Unwind_Context* context, void* user) {
  constexpr std::size_t kDeepest = 60;
  Walk& walk = *static_cast<Walk*>(user);
  if (++walk.seen > kDeepest) return _URC_END_OF_STACK;
  const auto base = reinterpret_cast<std::uintptr_t>(&__executable_start);
  const std::uintptr_t address = _Unwind_GetIP(context) - 1;
  if (address < base || address - base > UINT32_MAX) return _URC_NO_REASON;
  const auto offset = static_cast<std::uint32_t>(address - base);
  switch (OwnerOf(offset)) {
    case kTests:
      return _URC_END_OF_STACK;
    case kOurs:
      walk.frames[walk.found++] = offset;
      return walk.found == walk.wanted ? _URC_END_OF_STACK : _URC_NO_REASON;
    default:
      return _URC_NO_REASON;
  }
}

std::uint64_t KeyOf(std::string_view call, const Walk& walk) {
  std::uint64_t key = 14695981039346656037U;
  const auto add = [&key](std::uint64_t value) { key = (key ^ value) * 1099511628211U; };
  for (const char letter : call) add(static_cast<unsigned char>(letter));
  for (const std::uint32_t frame : walk.frames) add(frame);
  return key | 1;
}

Site* Find(std::uint64_t key, const char* call, const Walk& walk) {
  std::array<Site, 1U << 14>& sites = g_table->sites;
  for (std::size_t i = 0; i < sites.size(); ++i) {
    Site& site = sites[(key / 2 + i) % sites.size()];
    std::uint64_t there = 0;
    if (site.key.compare_exchange_strong(there, key)) {
      std::snprintf(site.call, sizeof site.call, "%s", call);
      site.frames = walk.frames;
      return &site;
    }
    if (there == key) return &site;
  }
  return nullptr;
}

void NoteFailure(const char* call) {
  char line[80];
  const int length =
      std::snprintf(line, sizeof line, "failed %llx %s\n", static_cast<unsigned long long>(g_target), call);
  const long file = Open(g_record, O_WRONLY | O_CREAT | O_APPEND);
  ::syscall(SYS_write, file, line, static_cast<std::size_t>(length));
  ::syscall(SYS_close, file);
}

// The program's own functions, before anything else of it runs.
__attribute__((constructor(101))) void WakeUp() {
  const char* const code = std::getenv("TOLM_FAULTS_CODE");
  g_record = std::getenv("TOLM_FAULTS_RECORD");
  if (code == nullptr || g_record == nullptr) return;
  if (const char* const target = std::getenv("TOLM_FAULTS_FAIL"))
    g_target = std::strtoull(target, nullptr, 16);
  g_always = std::getenv("TOLM_FAULTS_ALWAYS") != nullptr;
  // Strings of the environment stay where they are when they are taken out of it.
  for (const char* name :
       {"TOLM_FAULTS_CODE", "TOLM_FAULTS_RECORD", "TOLM_FAULTS_FAIL", "TOLM_FAULTS_ALWAYS"}) {
    ::unsetenv(name);
  }
  const long file = Open(code, O_RDONLY);
  struct stat status {};
  if (file < 0 || ::fstat(static_cast<int>(file), &status) != 0) std::abort();
  const auto size = static_cast<std::size_t>(status.st_size);
  void* const bytes = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, static_cast<int>(file), 0);
  void* const table =
      ::mmap(nullptr, sizeof(Table), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ::syscall(SYS_close, file);
  if (bytes == MAP_FAILED || table == MAP_FAILED) std::abort();
  g_code = static_cast<const Code*>(bytes);
  g_code_count = size / sizeof(Code);
  g_table = static_cast<Table*>(table);
  g_awake = true;
}

// "KEY CALL HITS FRAME..." for each site.
__attribute__((destructor(101))) void WriteRecord() {
  if (!g_awake.exchange(false) || g_target != 0) return;
  const long file = Open(g_record, O_WRONLY | O_CREAT | O_APPEND);
  for (const Site& site : g_table->sites) {
    if (site.key == 0) continue;
    char line[160];
    const int length = std::snprintf(line, sizeof line, "site %llx %s %u %x %x %x\n",
                                     static_cast<unsigned long long>(site.key.load()), site.call,
                                     site.hits.load(), site.frames[0], site.frames[1], site.frames[2]);
    ::syscall(SYS_write, file, line, static_cast<std::size_t>(length));
  }
  ::syscall(SYS_close, file);
}

}  // namespace

bool Fails(const char* call) noexcept {
  if (!g_awake.load(std::memory_order_acquire) || t_inside) return false;
  if (g_target != 0 && !g_always && g_table->failed.load(std::memory_order_relaxed) != 0) return false;
  const int saved_errno = errno;
  t_inside = true;
  Walk walk{call[0] == 'n' && call[1] == 'e' && call[2] == 'w' ? kFramesOfAllocation : kMostFrames};
  _Unwind_Backtrace(OnFrame, &walk);
  bool fails = false;
  if (walk.found > 0) {
    const std::uint64_t key = KeyOf(call, walk);
    if (g_target == 0) {
      if (Site* const site = Find(key, call, walk)) ++site->hits;
    } else if (key == g_target) {
      const bool first = g_table->failed.fetch_add(1) == 0;
      fails = first || g_always;
      if (first) NoteFailure(call);
    }
  }
  t_inside = false;
  errno = saved_errno;
  return fails;
}

void* Next(const char* name) noexcept {
  return ::dlsym(RTLD_NEXT, name);
}

}  // namespace tolm::faults
