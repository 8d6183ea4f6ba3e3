#include "Tally.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "support/System.h"

namespace trust::death {
namespace {

constexpr std::uint64_t kMostShown = 20;
constexpr std::array<const char*, kOutcomes> kNames{
    "answered",   "not_served", "no_such_peer",  "peer_gone", "time_out",
    "queue_full", "refused",    "not_connected", "other",     "wrong_answer"};

static_assert(std::atomic<std::int64_t>::is_always_lock_free, "locks would not be shared by processes");

}  // namespace

const char* NameOf(Outcome outcome) {
  return kNames[static_cast<std::size_t>(outcome)];
}

Outcome OutcomeOf(int code) {
  switch (code) {
    case 6:
      return Outcome::kNoSuchPeer;
    case 7:
      return Outcome::kPeerGone;
    case 8:
      return Outcome::kTimeOut;
    case 9:
      return Outcome::kQueueFull;
    case 11:
      return Outcome::kRefused;
    case 12:
      return Outcome::kNotConnected;
    default:
      return Outcome::kOther;
  }
}

Tally& OpenTally(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0 || ::ftruncate(file, sizeof(Tally)) != 0) throw std::runtime_error("cannot open " + path);
  void* const memory = ::mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ::close(file);
  if (memory == MAP_FAILED) throw std::runtime_error("cannot map " + path);
  return *static_cast<Tally*>(memory);
}

std::int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void Disturb(Tally& tally, std::size_t whom) {
  tally.disturbed_ns[whom] = NowNs();
}

void ForgetDisturbances(Tally& tally) {
  for (auto& disturbed : tally.disturbed_ns) disturbed = 0;
}

bool IsDisturbed(const Tally& tally, std::size_t whom) {
  const std::int64_t disturbed = tally.disturbed_ns[whom];
  return disturbed != 0 && NowNs() - disturbed < std::chrono::nanoseconds(kExplains).count();
}

Caller::Caller(Tally& tally) : tally_(tally) {
  for (Tally::Place& place : tally.places) {
    int free = 0;
    if (!place.process.compare_exchange_strong(free, ::getpid())) continue;
    place_ = &place;
    return;
  }
  throw std::runtime_error("the tally has no place for one caller more");
}

Caller::~Caller() {
  place_->due_ns = 0;
  place_->process = 0;
}

Outcome Caller::Judge(std::chrono::milliseconds time_out, bool may_time_out,
                      std::initializer_list<std::size_t> plugins, const std::function<Outcome()>& call) {
  const std::uint32_t calm = tally_.calm;
  const std::int64_t begun = NowNs();
  const std::int64_t due = begun + std::chrono::nanoseconds(time_out).count();
  // In this order: a due time that can be seen never has an earlier call's beginning.
  place_->begun_ns = begun;
  place_->due_ns = due;
  const Outcome outcome = call();
  // Whoever reviews the callers may have counted it as late already, and then has taken the time away.
  const bool is_late = NowNs() > due + std::chrono::nanoseconds(kMargin).count();
  if (place_->due_ns.exchange(0) != 0 && is_late) ++tally_.late;

  ++tally_.outcomes[static_cast<std::size_t>(outcome)];
  const bool is_answered = outcome == Outcome::kAnswered;
  if (calm % 2 == 1 && calm == tally_.calm) {
    ++tally_.calm_calls;
    if (!is_answered) ++tally_.calm_failed;
  }
  Explain(outcome, may_time_out, plugins);
  return outcome;
}

void Caller::Explain(Outcome outcome, bool may_time_out, std::initializer_list<std::size_t> plugins) {
  const bool all_disturbed = IsDisturbed(tally_, kEverybody);
  const bool one_disturbed = std::any_of(plugins.begin(), plugins.end(),
                                         [&](std::size_t plugin) { return IsDisturbed(tally_, plugin); });
  if (!all_disturbed && !one_disturbed) ++tally_.undisturbed;
  if (outcome == Outcome::kAnswered) return;
  const bool is_about_a_death = outcome == Outcome::kNotServed || outcome == Outcome::kNoSuchPeer ||
                                outcome == Outcome::kPeerGone || outcome == Outcome::kNotConnected ||
                                (outcome == Outcome::kTimeOut && may_time_out);
  if (is_about_a_death && all_disturbed) {
    ++tally_.explained_by_all;
  } else if (is_about_a_death && one_disturbed) {
    ++tally_.explained_by_plugin;
  } else if (++tally_.unexplained <= kMostShown) {
    std::string whose;
    for (const std::size_t plugin : plugins) whose += " " + std::to_string(plugin);
    std::fprintf(stderr, "process %d: a call of plugins%s ended unexplained: %s\n", ::getpid(), whose.c_str(),
                 NameOf(outcome));
  }
}

std::size_t ReviewCallers(Tally& tally, std::int64_t begun_before) {
  std::size_t under_way = 0;
  for (Tally::Place& place : tally.places) {
    const int process = place.process;
    if (process == 0) continue;
    std::int64_t due = place.due_ns;
    if (!tolm::test::IsAlive(process)) {
      if (due != 0) ++tally.cut;
      place.due_ns = 0;
      place.process = 0;
    } else if (due != 0) {
      if (place.begun_ns < begun_before) ++under_way;
      if (NowNs() > due + std::chrono::nanoseconds(kMargin).count() &&
          place.due_ns.compare_exchange_strong(due, 0)) {
        ++tally.late;
        std::printf("a call of process %d has not ended in time\n", process);
      }
    }
  }
  return under_way;
}

}  // namespace trust::death
