#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "GuardMessages.h"
#include "Scheduler.h"

namespace guard {

/// The way to the frame, as the guard sees it.
class FrameChannel {
 public:
  virtual ~FrameChannel() = default;

  /// Queues one text; false when no frame is connected. Does not block.
  virtual bool Send(std::string text) = 0;
};

/// Tells the frame which plugins have ended, so that no word on an earlier life takes the flag from a later
/// one.
///
/// The frame handles texts in any order and does not say when it has handled one. So a notice must be out of
/// the way before a successor can initialise:
///
///   guard                                   frame
///   a plugin ends, a successor is due
///   which are initialised?  ───────────►
///            (a) ◄───────────  not this one: a notice would have no effect, and none is sent. It is settled.
///            (b) ◄───────────  this one
///   it has ended            ───────────►
///   which are initialised?  ───────────►    again and again
///                ◄───────────  not this one: only the notice can have done that. It is settled.
///
/// An end without a successor is told at once, and asked behind. A frame that does not answer is waited for
/// as long as `kSettledWithin`. All operations are for the scheduler's thread.
class EndReports {
 public:
  static constexpr Milliseconds kSettledWithin{1000};
  /// Between two questions about an end that the frame was told of.
  static constexpr Milliseconds kAskAgain{10};

  /// Both must outlive it.
  EndReports(Scheduler& scheduler, FrameChannel& channel);
  ~EndReports();
  EndReports(const EndReports&) = delete;
  EndReports& operator=(const EndReports&) = delete;

  void OnEnded(const std::string& plugin, bool successor_due);
  /// The frame's answer to the question that carried `guid`, ours or not.
  void OnStates(const std::string& guid, const std::map<std::string, bool>& states);
  void OnFrameLost();
  /// Ends that no frame has heard of, which are for the caller to report again.
  std::set<std::string> TakeUnheard();
  /// Whether a successor may be started.
  bool IsSettled(const std::string& plugin) const;

 private:
  struct End {
    TimePoint until;  // waited for
    bool told = false;
    std::string question;  // its guid; empty: is asked when the timer fires
  };

  bool Ask(End& end);
  void AskLater(End& end);
  void AskAgain();

  Scheduler& scheduler_;
  FrameChannel& channel_;
  std::map<std::string, End> ends_;  // not settled yet, by the plugin's id
  std::set<std::string> unheard_;
  Scheduler::TimerId timer_ = 0;
};

}  // namespace guard
