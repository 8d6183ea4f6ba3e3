#pragma once

// What the processes of a run count together, in a file that all of them map, so that nothing is lost with
// those that are killed.

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
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
  kOther,         ///< another code
  kWrongAnswer,   ///< an answer, and not to this call
};
inline constexpr std::size_t kOutcomes = 10;
const char* NameOf(Outcome outcome);
/// Of a transport's code; 0 is none of ours to ask for.
Outcome OutcomeOf(int code);

inline constexpr std::size_t kMaxPlugins = 64;
inline constexpr std::size_t kMaxCallers = 1024;
/// How much later than its time-out a call may end: what a busy machine needs to wake a thread.
inline constexpr std::chrono::milliseconds kMargin{2000};
/// A failure is explained by a death so long before it, at most: within that time everything is back.
inline constexpr std::chrono::seconds kExplains{15};
/// A request for which nobody waits is lost when for so long nothing can be said of it.
inline constexpr std::chrono::seconds kLost{20};
/// Whom the death of host, agent or guard disturbs, and a start and a stop; a plugin's death disturbs that
/// plugin, which is meant by its place in the list.
inline constexpr std::size_t kEverybody = kMaxPlugins;

using Count = std::atomic<std::uint64_t>;

/// All zero at first. Everything in it is used by many processes at once.
struct Tally {
  /// When each plugin, and last kEverybody, was disturbed the last time since all was well; 0: not since
  /// then.
  std::array<std::atomic<std::int64_t>, kMaxPlugins + 1> disturbed_ns;
  /// Odd while all is well and nothing happens: whatever begins and ends within one such number is answered.
  std::atomic<std::uint32_t> calm;
  /// Nobody begins a call.
  std::atomic<bool> quiet;

  std::array<Count, kOutcomes> outcomes;
  Count late;
  Count explained_by_plugin;  // by a killed plugin, and by nothing else
  Count explained_by_all;     // by what disturbs everybody
  Count unexplained;
  Count undisturbed;  // calls of which no failure would have been explained
  Count calm_calls;
  Count calm_failed;
  Count cut;  // calls whose caller was killed

  Count notices;
  Count notices_failed;
  // Requests that nobody waits for. Each one that was sent is counted below once, when it is decided.
  Count later_sent;
  Count later_never_sent;
  Count later_answered;
  Count later_peer_gone;
  Count later_lost;
  Count later_host_stopped;  // undecided when their host had stopped in order
  Count later_host_killed;
  Count later_unasked;  // answers to nothing, or to what had been answered
  /// When the oldest one was sent of which the host knows no end yet; 0: there is none.
  std::atomic<std::int64_t> later_oldest_ns;

  // What each plugin has answered to the host, and what it was answered by other plugins and by the host.
  std::array<Count, kMaxPlugins> served;
  std::array<Count, kMaxPlugins> forwarded;
  std::array<Count, kMaxPlugins> upward;

  Count events;
  Count events_swapped;
  Count events_out_of_order;
  std::array<std::atomic<int>, kMaxPlugins> connections;  // events 2 less events 3, in this life of the host

  struct Place {
    std::atomic<int> process;            // 0: free
    std::atomic<std::int64_t> begun_ns;  // of the call that is under way, or was the last one
    std::atomic<std::int64_t> due_ns;    // of the call that is under way; 0: none
  };
  std::array<Place, kMaxCallers> places;
};

/// The tally in the file `path`, which is made when it is not there. It stays for the life of the process.
Tally& OpenTally(const std::string& path);

std::int64_t NowNs();
/// `whom`: a plugin, or kEverybody. To be said before it happens.
void Disturb(Tally& tally, std::size_t whom);
/// All is well again, and no call is under way that was begun before: what fails from now on is explained by
/// what happens from now on.
void ForgetDisturbances(Tally& tally);
/// Whether that alone explains a failure at this moment.
bool IsDisturbed(const Tally& tally, std::size_t whom);

/// One thread that calls.
class Caller {
 public:
  explicit Caller(Tally& tally);
  ~Caller();
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  /// Makes a call that waits for at most `time_out`, and judges how it ends. `plugins` take part in it:
  /// whether others died explains nothing. A time-out is explained by a death only when `may_time_out`.
  Outcome Judge(std::chrono::milliseconds time_out, bool may_time_out,
                std::initializer_list<std::size_t> plugins, const std::function<Outcome()>& call);

 private:
  void Explain(Outcome outcome, bool may_time_out, std::initializer_list<std::size_t> plugins);

  Tally& tally_;
  Tally::Place* place_ = nullptr;
};

/// Frees the places of processes that are gone, and counts their calls; counts calls as late that should have
/// ended. For the process that kills. Gives how many calls are under way that were begun before
/// `begun_before`, a time as NowNs gives it.
std::size_t ReviewCallers(Tally& tally, std::int64_t begun_before);

}  // namespace trust::death
