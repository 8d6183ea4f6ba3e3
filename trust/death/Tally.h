#pragma once

// What the processes of a run count together, in a file that all of them map, so that nothing is lost with
// those that are killed.

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace trust::death {

/// How a call ended, as its caller was told.
enum class Outcome : std::size_t {
  kAnswered,
  kNotServed,     ///< the frame refused at once: nobody serves the url, or the plugin has not initialised
  kNoSuchPeer,    ///< code 6: never delivered
  kPeerGone,      ///< code 7
  kTimeOut,       ///< code 8
  kQueueFull,     ///< code 9
  kRefused,       ///< code 11
  kNotConnected,  ///< code 12: never delivered
  kOther,         ///< another code, or a wrong answer
};
inline constexpr std::size_t kOutcomes = 9;
const char* NameOf(Outcome outcome);
/// Of a transport's code; 0 is none of ours to ask for.
Outcome OutcomeOf(int code);

inline constexpr std::size_t kMaxPlugins = 64;
inline constexpr std::size_t kMaxCallers = 1024;
/// How much later than its time-out a call may end: what a busy machine needs to wake a thread.
inline constexpr std::chrono::milliseconds kMargin{2000};
/// A failure is explained by a death so long before it, at most: within that time everything is back.
inline constexpr std::chrono::seconds kExplains{15};

using Count = std::atomic<std::uint64_t>;

/// All zero at first. Everything in it is used by many processes at once.
struct Tally {
  /// When something was killed, started or stopped the last time.
  std::atomic<std::int64_t> disturbed_ns;
  /// Odd while all is well and nothing happens: whatever begins and ends within one such number is answered.
  std::atomic<std::uint32_t> calm;
  /// Nobody begins a call.
  std::atomic<bool> quiet;

  std::array<Count, kOutcomes> outcomes;
  Count late;
  Count unexplained;
  Count calm_calls;
  Count calm_failed;
  Count cut;  // calls whose caller was killed

  Count notices;
  Count notices_failed;
  Count later_sent;  // requests that nobody waits for
  Count later_answered;
  Count later_never_sent;
  Count later_peer_gone;
  Count later_lost;

  // What each plugin has answered to the host, and what it was answered by other plugins and by the host.
  std::array<Count, kMaxPlugins> served;
  std::array<Count, kMaxPlugins> forwarded;
  std::array<Count, kMaxPlugins> upward;

  Count events;
  Count events_swapped;
  Count events_out_of_order;
  std::array<std::atomic<int>, kMaxPlugins> connections;  // events 2 less events 3, in this life of the host

  struct Place {
    std::atomic<int> process;          // 0: free
    std::atomic<std::int64_t> due_ns;  // of the call that is under way; 0: none
  };
  std::array<Place, kMaxCallers> places;
};

/// The tally in the file `path`, which is made when it is not there. It stays for the life of the process.
Tally& OpenTally(const std::string& path);

std::int64_t NowNs();
void Disturb(Tally& tally);
bool IsDisturbed(const Tally& tally);

/// One thread that calls.
class Caller {
 public:
  explicit Caller(Tally& tally);
  ~Caller();
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  /// Makes a call that waits for at most `time_out`, and judges how it ends. A time-out is explained by a
  /// death only when `may_time_out`.
  Outcome Judge(std::chrono::milliseconds time_out, bool may_time_out, const std::function<Outcome()>& call);

 private:
  Tally& tally_;
  Tally::Place* place_ = nullptr;
};

/// Frees the places of processes that are gone, and counts their calls; counts calls as late that should have
/// ended. For the process that kills. Gives how many calls are under way.
std::size_t ReviewCallers(Tally& tally);

}  // namespace trust::death
