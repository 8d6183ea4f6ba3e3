#pragma once

// The frame and its plugins in one process, over the real transport and the real WebSocket server.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "TolmLPCFrame.h"
#include "support/posix/ShortTime.h"

namespace trust {

// What the frame waits for seconds takes milliseconds here.
using tolm::test::kTimesShorter;
using tolm::test::LetPass;

/// The endpoint's and the host's folder, for the whole process; to be made before the frame is used.
class Stage {
 public:
  Stage();
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;
};

inline constexpr char kEndpointOfStage[] = "trust-stop";

/// Lists the plugins "p0" to "p<plugins - 1>" and "mute".
TolmLPCFrame::PlatformInfo Listed(int plugins, int frame_type);
/// Where the frame looks for the agent's program; there is none.
std::string AgentPath();
/// Where the guard finds the frame that runs; nothing without an endpoint.
std::optional<std::uint16_t> GuardPort(int frame_type);

/// Ends the process, with a missed figure, when what it watches takes longer than `limit`.
class Watchdog {
 public:
  Watchdog(std::string figure, std::chrono::seconds limit);
  ~Watchdog();
  /// The time begins anew; `what` is said when it is over.
  void Look(const char* what, long number);

 private:
  const std::string figure_;
  const std::chrono::seconds limit_;
  std::atomic<const char*> what_{"the start"};
  std::atomic<long> number_{0};
  std::atomic<std::int64_t> since_;
  std::jthread thread_;
};

/// A number behind `name` in the command line, or `otherwise`.
long Argument(int argc, char** argv, const char* name, long otherwise);

double MillisecondsSince(std::chrono::steady_clock::time_point begin);

/// Whether the sanitizers watch, under which everything takes longer.
bool IsWatched();
/// Whether "--patient" is in the command line: for runs beside much else, of which times and memory say
/// nothing. What hangs is found all the same.
bool IsPatient(int argc, char** argv);
/// The bound of a time that is `usual` milliseconds on a machine with nothing else to do.
double MostMs(double usual, bool patient);

}  // namespace trust
