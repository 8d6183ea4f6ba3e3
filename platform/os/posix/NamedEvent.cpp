// An event is a small file that its holders map. Byte ranges of the file are locks, which the system
// frees when a holder is killed: each holder has a shared one on kHolders, and whoever looks whether there
// are holders, makes a file usable or removes it does so with an exclusive one on kInspection.

#include "os/NamedEvent.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <ctime>
#include <exception>
#include <optional>
#include <thread>

#include "Descriptor.h"
#include "ProcessTable.h"
#include "RuntimeFolder.h"

namespace os {
namespace {

using Clock = std::chrono::steady_clock;

/// How long a wait that finds the event signalled leaves the signal to those that waited before.
constexpr std::chrono::milliseconds kGrace{200};

/// How long a maker that was killed may take to end.
constexpr std::chrono::seconds kLongestEnding{1};
constexpr std::chrono::milliseconds kEndingInterval{5};

// -------------------------------------------------------------------------------------- The file

constexpr off_t kHolders = 0;
constexpr off_t kInspection = 1;

// What holders share; all zero at first. Each change is one atomic step, so that a process that is killed
// in between leaves nothing half done.
struct Shared {
  std::atomic<std::uint32_t> changes;  // odd while signalled
  std::atomic<std::uint32_t> maker;    // its process id; 0 when it is not there any more
  std::atomic<std::uint64_t> waiters;  // how many wait, below the number of a generation
  std::atomic<std::uint64_t> setter;   // the process id of who signalled last
};
static_assert(sizeof(Shared) == 24 && std::atomic<std::uint64_t>::is_always_lock_free &&
              sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));

/// Where the event's file lies: the folder and its name in there.
struct Place {
  RuntimeFolder folder;
  std::string name;
};

/// Nothing when the name is empty or the folder may not be used.
std::optional<Place> PlaceOf(const std::string& name) {
  if (name.empty()) return std::nullopt;
  std::string fault;
  RuntimeFolder folder = RuntimeFolder::Open(fault);
  if (!fault.empty()) return std::nullopt;
  return Place{std::move(folder), RuntimeFileName(name) + ".event"};
}

// ------------------------------------------------------------------------------------- The locks

struct flock Range(short type, off_t byte) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = byte;
  range.l_len = 1;
  return range;
}

bool SetLock(const Descriptor& file, short type, off_t byte) {
  struct flock range = Range(type, byte);
  int result = 0;
  do {
    result = ::fcntl(file.get(), F_OFD_SETLKW, &range);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

/// Whether somebody but `file` itself holds the event.
bool HasOtherHolders(const Descriptor& file) {
  struct flock range = Range(F_WRLCK, kHolders);
  return ::fcntl(file.get(), F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
}

/// The file there, locked for inspection; nothing, with errno set, when it cannot be opened. Whoever had it
/// locked may have removed it, so that another one, or none, lies there by now.
Descriptor OpenForInspection(const Place& place, int more_flags) {
  for (;;) {
    Descriptor file = place.folder.OpenFile(place.name, more_flags);
    if (!file || !SetLock(file, F_WRLCK, kInspection)) return {};
    const FilePlace lies = place.folder.PlaceOf(place.name, file);
    if (lies == FilePlace::kThere) return file;
    if (lies == FilePlace::kUnknown) return {};
  }
}

/// Whether the event's maker was killed and is not gone yet. That one does not answer any more, and those who
/// find the event would wait for it.
bool IsMakerEnding(const Descriptor& file) {
  std::uint32_t maker = 0;
  if (::pread(file.get(), &maker, sizeof maker, offsetof(Shared, maker)) != sizeof maker || maker == 0) {
    return false;
  }
  try {
    return IsEnding(static_cast<pid_t>(maker));
  } catch (const std::exception&) {
    return false;  // too little memory, or no descriptor, to look
  }
}

struct Found {
  Descriptor file;         ///< locked for inspection; none when it cannot be opened
  bool held = false;       ///< by somebody else
  bool has_maker = false;  ///< and by its maker
};

/// The event's file, as soon as it is clear who holds it.
Found Find(const Place& place, int more_flags) {
  const auto deadline = Clock::now() + kLongestEnding;
  for (;;) {
    Found found{OpenForInspection(place, more_flags)};
    if (!found.file) return found;
    found.held = HasOtherHolders(found.file);
    found.has_maker = found.held && !IsMakerEnding(found.file);
    if (!found.held || found.has_maker || Clock::now() >= deadline) return found;
    found.file = {};
    std::this_thread::sleep_for(kEndingInterval);
  }
}

/// What nobody holds is left by the killed, whatever it says. Reserves the space: a full disk has to be
/// noticed here and not where the memory is used.
bool MakeFresh(const Descriptor& file) {
  if (::ftruncate(file.get(), 0) != 0) return false;
  const int error = ::posix_fallocate(file.get(), 0, sizeof(Shared));
  if (error != 0) errno = error;
  return error == 0;
}

// ------------------------------------------------------------------------------------- The event

class FileEvent final : public NamedEvent {
 public:
  /// The maker of an event counts as one who waits from the beginning: it serves those who find the event,
  /// and its first wait may not have begun when the first of them is there.
  FileEvent(Place place, Descriptor file, Shared* shared, bool is_maker)
      : place_(std::move(place)), file_(std::move(file)), shared_(*shared) {
    if (!is_maker) return;
    standing_.emplace(shared_);
    shared_.maker = own_id_;
  }

  ~FileEvent() override {
    if (std::uint32_t maker = own_id_; standing_) shared_.maker.compare_exchange_strong(maker, 0);
    standing_.reset();
    ::munmap(&shared_, sizeof(Shared));
    if (SetLock(file_, F_WRLCK, kInspection) && !HasOtherHolders(file_)) RemoveName();
  }

  void Set() override {
    shared_.setter = own_id_;
    std::uint32_t seen = shared_.changes.load();
    while (!IsSignalled(seen) && !shared_.changes.compare_exchange_weak(seen, seen + 1)) {
    }
    // Everybody, and even when nothing changed: a waiter that is woken alone, or the one who signalled
    // before, may have been killed before it came to anything.
    WakeAll();
  }

  bool Wait(int timeout_ms) override {
    std::optional<Clock::time_point> deadline;
    if (timeout_ms >= 0) deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    if (!GiveWay(deadline)) return false;
    std::optional<Registration> passing;
    Registration& registration = standing_ ? *standing_ : passing.emplace(shared_);
    for (;;) {
      registration.Renew();
      const std::uint32_t seen = shared_.changes.load();
      if (IsSignalled(seen)) {
        if (Take(seen)) return true;
      } else if (deadline && Clock::now() >= *deadline) {
        return false;
      } else {
        Sleep(seen, deadline);
      }
    }
  }

  void GiveUpName() override {
    // Closing it ends the lock, which the event's own file would keep if it could not be unlocked.
    const Descriptor inspected = OpenForInspection(place_, 0);
    if (inspected) RemoveName();
  }

  std::intptr_t native() const override { return file_.get(); }

 private:
  // REQUIRES: the file is locked for inspection.
  void RemoveName() {
    if (place_.folder.Holds(place_.name, file_)) place_.folder.Remove(place_.name);
  }

  // One wait's place in `waiters`. A new generation begins when those of the old one have not used their
  // grace: the killed among them are forgotten, the living register again when they notice.
  class Registration {
   public:
    explicit Registration(Shared& shared) : waiters_(shared.waiters), generation_(Enter()) {}
    ~Registration() {
      std::uint64_t seen = waiters_.load();
      while (seen >> 32 == generation_ && !waiters_.compare_exchange_weak(seen, seen - 1)) {
      }
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    void Renew() {
      if (waiters_.load() >> 32 != generation_) generation_ = Enter();
    }

   private:
    std::uint64_t Enter() { return waiters_.fetch_add(1) >> 32; }

    std::atomic<std::uint64_t>& waiters_;
    std::uint64_t generation_;
  };

  static bool IsSignalled(std::uint32_t changes) { return changes % 2 != 0; }

  bool Take(std::uint32_t seen) {
    if (!shared_.changes.compare_exchange_strong(seen, seen + 1)) return false;
    WakeAll();  // those that give way
    return true;
  }

  // Leaves a signal to the waits that are under way. Takes its time even when the caller has less: to
  // take the signal at once would break the order, and to leave it for good would let a killed process
  // keep it. False when the maker, which lives, has not come to take it until `deadline`.
  bool GiveWay(const std::optional<Clock::time_point>& deadline) {
    const std::uint32_t seen = shared_.changes.load();
    const auto count = static_cast<std::uint32_t>(shared_.waiters.load());
    if (!IsSignalled(seen) || count <= (standing_ ? 1U : 0U)) return true;
    auto grace = Clock::now() + kGrace;
    while (shared_.changes.load() == seen) {
      if (const auto now = Clock::now(); now >= grace) {
        if (!IsForMaker()) {
          std::uint64_t waiters = shared_.waiters.load();
          shared_.waiters.compare_exchange_strong(waiters, ((waiters >> 32) + 1) << 32);
          return true;
        }
        if (deadline && now >= *deadline) return false;
        grace = now + kGrace;
      }
      Sleep(seen, grace);
    }
    return true;
  }

  // Whether the signal is for the maker, who serves those that find the event, and is there to take it.
  bool IsForMaker() const {
    const std::uint32_t maker = shared_.maker.load();
    return !standing_ && maker != 0 && shared_.setter.load() != maker && !IsMakerEnding(file_);
  }

  // Until `changes` is not `seen` any more, the deadline, or for no reason.
  void Sleep(std::uint32_t seen, const std::optional<Clock::time_point>& deadline) {
    timespec until{};  // on the monotonic clock, which steady_clock is
    if (deadline) {
      const auto since_boot =
          std::chrono::duration_cast<std::chrono::nanoseconds>(deadline->time_since_epoch());
      until.tv_sec = static_cast<time_t>(since_boot.count() / 1'000'000'000);
      until.tv_nsec = static_cast<long>(since_boot.count() % 1'000'000'000);
    }
    ::syscall(SYS_futex, &shared_.changes, FUTEX_WAIT_BITSET, seen, deadline ? &until : nullptr, nullptr,
              FUTEX_BITSET_MATCH_ANY);
  }

  void WakeAll() { ::syscall(SYS_futex, &shared_.changes, FUTEX_WAKE, INT_MAX); }

  const Place place_;
  const Descriptor file_;
  Shared& shared_;
  const std::uint32_t own_id_ = static_cast<std::uint32_t>(::getpid());
  std::optional<Registration> standing_;
};

/// Becomes one of the holders; `file` is locked for inspection, which ends. Null with errno set.
std::unique_ptr<NamedEvent> Join(Place place, Descriptor file, bool is_maker) {
  if (!SetLock(file, F_RDLCK, kHolders) || !SetLock(file, F_UNLCK, kInspection)) return nullptr;
  struct Unmap {
    void operator()(Shared* shared) const { ::munmap(shared, sizeof(Shared)); }
  };
  void* const memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (memory == MAP_FAILED) return nullptr;
  std::unique_ptr<Shared, Unmap> shared(static_cast<Shared*>(memory));
  auto event = std::make_unique<FileEvent>(std::move(place), std::move(file), shared.get(), is_maker);
  static_cast<void>(shared.release());  // the event's
  return event;
}

}  // namespace

std::unique_ptr<NamedEvent> NamedEvent::Create(const std::string& name, int& error) {
  error = 0;
  std::optional<Place> place = PlaceOf(name);
  if (!place) {
    error = name.empty() ? EINVAL : EACCES;
    return nullptr;
  }
  Found found = Find(*place, O_CREAT);
  std::unique_ptr<NamedEvent> event;
  if (found.file && (found.held || MakeFresh(found.file))) {
    event = Join(std::move(*place), std::move(found.file), !found.has_maker);
  }
  if (event == nullptr) error = errno;
  return event;
}

std::unique_ptr<NamedEvent> NamedEvent::Open(const std::string& name) {
  std::optional<Place> place = PlaceOf(name);
  if (!place) return nullptr;
  Found found = Find(*place, 0);
  if (!found.file) return nullptr;
  if (!found.held) {
    place->folder.Remove(place->name);
    return nullptr;
  }
  return Join(std::move(*place), std::move(found.file), false);
}

}  // namespace os
