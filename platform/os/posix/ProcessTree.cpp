#include "ProcessTree.h"

#include <poll.h>
#include <semaphore.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "NoSignals.h"
#include "ProcessTable.h"
#include "os/ChildProcess.h"
#include "os/Mutex.h"
#include "os/ThreadName.h"

namespace os {
namespace {

using Clock = std::chrono::steady_clock;

// A killed process is gone within milliseconds, unless a device or a network file system holds it.
constexpr std::chrono::milliseconds kEndOfKilled{1000};
// Processes that leave their group and start others faster than they can be looked for are not to be had.
constexpr std::chrono::milliseconds kEndOfChase{3000};

// The numbers are listed first and looked at one by one then. A process that starts another one behind the
// list and ends before its turn hides it from this look; the next one finds it.
constexpr int kEmptyLooks = 2;

// After a shortage of memory or descriptors, in which nobody can be looked for.
constexpr int kShortagePauseMs = 20;

/// The children that are not collected yet.
struct Children {
  Mutex mutex;
  std::map<pid_t, TreeRoot> roots TOLM_GUARDED_BY(mutex);
};

Children& TheChildren() {
  static Children* const children = new Children;
  return *children;
}

std::atomic<bool> g_adopts{false};
sem_t g_child_ended;

bool CarriesMark(pid_t id, const std::string& mark) {
  const std::string found = EnvironmentOf(id, kMarkVariable);
  return found.starts_with(mark) && (found.size() == mark.size() || found[mark.size()] == '/');
}

std::multimap<pid_t, const ProcessRow*> ByParent(const std::vector<ProcessRow>& rows) {
  std::multimap<pid_t, const ProcessRow*> by_parent;
  for (const ProcessRow& row : rows) by_parent.emplace(row.parent, &row);
  return by_parent;
}

/// Adds to `found` everything below its members.
void AddDescendants(const std::vector<ProcessRow>& rows, std::set<pid_t>& found) {
  const auto by_parent = ByParent(rows);
  std::vector<pid_t> open(found.begin(), found.end());
  while (!open.empty()) {
    const auto [begin, end] = by_parent.equal_range(open.back());
    open.pop_back();
    for (auto child = begin; child != end; ++child) {
      if (found.insert(child->second->id).second) open.push_back(child->second->id);
    }
  }
}

/// The root and all that came from it.
std::set<pid_t> TreeOf(const TreeRoot& root, const std::vector<ProcessRow>& rows) {
  std::set<pid_t> tree{root.id};
  AddDescendants(rows, tree);
  for (const ProcessRow& row : rows) {
    // Nothing that is older than the root can have come from it; that spares most environments.
    if (row.start_time < root.start_time || !row.IsAlive() || tree.contains(row.id)) continue;
    if (row.group == root.id || (!root.mark.empty() && CarriesMark(row.id, root.mark))) tree.insert(row.id);
  }
  AddDescendants(rows, tree);
  return tree;
}

std::vector<ProcessRow> LivingOf(const std::vector<ProcessRow>& rows, const std::set<pid_t>& ids) {
  std::vector<ProcessRow> living;
  std::copy_if(rows.begin(), rows.end(), std::back_inserter(living),
               [&](const ProcessRow& row) { return row.IsAlive() && ids.contains(row.id); });
  return living;
}

using Choose = std::function<std::set<pid_t>(const std::vector<ProcessRow>&)>;

/// Kills what `choose` picks of the processes, again and again until it picks nobody: a process may
/// start another one right before it is killed. False when some do not end in time, and when the system has
/// no room to look for them.
class Hunt {
 public:
  explicit Hunt(const Choose& choose) : choose_(choose) {}

  bool Run() noexcept {
    for (;;) {
      try {
        if (const auto over = Look()) return *over;
      } catch (const std::exception&) {
        empty_looks_ = 0;  // who was not looked for may be there
        if (Clock::now() - begin_ >= kEndOfKilled) return false;
        ::poll(nullptr, 0, kShortagePauseMs);
      }
    }
  }

 private:
  std::optional<bool> Look() {
    const std::vector<ProcessRow> rows = ReadProcesses();
    const std::vector<ProcessRow> living = LivingOf(rows, choose_(rows));
    if (living.empty()) {
      if (++empty_looks_ == kEmptyLooks) return true;
      return std::nullopt;
    }
    empty_looks_ = 0;

    bool met_new_one = false;
    std::vector<pollfd> dying;
    for (const ProcessRow& row : living) {
      const auto [entry, is_new] = killed_.try_emplace({row.id, row.start_time});
      if (is_new) {
        met_new_one = true;
        entry->second = Kill(row);
      }
      if (entry->second) dying.push_back({entry->second.get(), POLLIN, 0});
    }
    if (Clock::now() - begin_ >= (met_new_one ? kEndOfChase : kEndOfKilled)) return false;
    constexpr int kLookAgainMs = 20;
    ::poll(dying.data(), dying.size(), kLookAgainMs);
    return std::nullopt;
  }

  const Choose& choose_;
  std::map<std::pair<pid_t, std::uint64_t>, Descriptor> killed_;
  const Clock::time_point begin_ = Clock::now();
  int empty_looks_ = 0;
};

bool KillUntilNoneIsLeft(const Choose& choose) noexcept {
  return Hunt(choose).Run();
}

/// Orphans that were adopted and have ended wait to be collected, and nobody else does it.
void CollectAdopted() {
  const pid_t self = ::getpid();
  for (const ProcessRow& row : ReadProcesses()) {
    if (row.parent != self || row.IsAlive()) continue;
    Children& children = TheChildren();
    const MutexLock lock(children.mutex);
    if (children.roots.contains(row.id)) continue;  // its ChildProcess does it
    siginfo_t ignored{};
    ::waitid(P_PID, static_cast<id_t>(row.id), &ignored, WEXITED | WNOHANG);
  }
}

void TellCollector(int) {
  const int error = errno;
  ::sem_post(&g_child_ended);
  errno = error;
}

void CollectForever() {
  SetThreadName("tolm-orphans");
  for (;;) {
    while (::sem_wait(&g_child_ended) != 0 && errno == EINTR) {
    }
    while (::sem_trywait(&g_child_ended) == 0) {
      // One look serves all that ended so far.
    }
    try {
      CollectAdopted();
    } catch (const std::exception&) {
      ::poll(nullptr, 0, kShortagePauseMs);
      ::sem_post(&g_child_ended);  // to be looked for again
    }
  }
}

}  // namespace

std::string MakeMark() {
  static std::atomic<unsigned> count{0};
  const auto self = ReadProcess(::getpid());
  const char* const above = std::getenv(kMarkVariable);
  // A number alone may have belonged to an earlier process, of which something may be left.
  return (above != nullptr ? std::string(above) + "/" : std::string()) + std::to_string(::getpid()) + "." +
         std::to_string(self ? self->start_time : 0) + "." + std::to_string(++count);
}

pid_t ForkChild(TreeRoot& root, ChildPlace& place) {
  Children& children = TheChildren();
  // Forked and noted in one step: whoever looks for strays in between would take the new child for one.
  const MutexLock lock(children.mutex);
  const pid_t id = ::fork();
  if (id <= 0) return id;
  root.id = id;
  try {
    // It is there, though it may have ended: only CollectChild takes it away.
    if (const auto row = ReadProcess(id)) root.start_time = row->start_time;
  } catch (const std::exception&) {
    // Then everybody may have come from it who has its mark.
  }
  auto noted = place.extract(place.begin());
  noted.key() = id;
  noted.mapped().id = id;
  noted.mapped().start_time = root.start_time;
  children.roots.insert(std::move(noted));
  return id;
}

void CollectChild(pid_t id) {
  siginfo_t ignored{};
  while (::waitid(P_PID, static_cast<id_t>(id), &ignored, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  Children& children = TheChildren();
  const MutexLock lock(children.mutex);
  ::waitid(P_PID, static_cast<id_t>(id), &ignored, WEXITED | WNOHANG);
  children.roots.erase(id);
}

bool HasDescendants(const TreeRoot& root) {
  for (int look = 0; look < kEmptyLooks; ++look) {
    const std::vector<ProcessRow> rows = ReadProcesses();
    std::set<pid_t> tree = TreeOf(root, rows);
    tree.erase(root.id);
    if (!LivingOf(rows, tree).empty()) return true;
  }
  return false;
}

bool KillTreeOf(const TreeRoot& root) noexcept {
  // The group first: that is one step for the system, so that nobody in it gets away by starting another.
  ::kill(-root.id, SIGKILL);
  // A captured reference fits into the function itself.
  return KillUntilNoneIsLeft([&root](const std::vector<ProcessRow>& rows) { return TreeOf(root, rows); });
}

bool AdoptsOrphans() {
  return g_adopts.load(std::memory_order_relaxed);
}

void AdoptOrphans() {
  if (g_adopts.exchange(true)) return;
  ::sem_init(&g_child_ended, 0, 0);

  try {
    const NoSignals here;
    std::thread(CollectForever).detach();
  } catch (...) {
    g_adopts = false;
    throw;
  }
  ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);

  struct sigaction action {};
  action.sa_handler = TellCollector;
  action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
  ::sigaction(SIGCHLD, &action, nullptr);
}

void KillStrayDescendants() {
  KillUntilNoneIsLeft([self = ::getpid()](const std::vector<ProcessRow>& rows) {
    // Read after the processes: a child that is among them is then known as well.
    std::map<pid_t, TreeRoot> roots;
    {
      Children& children = TheChildren();
      const MutexLock lock(children.mutex);
      roots = children.roots;
    }
    std::set<pid_t> strays{self};
    AddDescendants(rows, strays);
    strays.erase(self);
    for (const auto& [id, root] : roots) {
      for (const pid_t ours : TreeOf(root, rows)) strays.erase(ours);
    }
    return strays;
  });
}

void EndWithParent() {
  const pid_t parent = ::getppid();
  ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
  // The parent may have ended before its end could have been reported.
  if (::getppid() != parent) ::raise(SIGKILL);
}

}  // namespace os
