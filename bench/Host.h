#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Callers.h"
#include "Counter.h"
#include "TolmLPCFrame.h"

namespace bench {

/// The frame in this process, and the one callback. One at a time, until the process ends.
class Host {
 public:
  /// Listens as `endpoint` for the plugins `ids`.
  Host(const std::string& endpoint, const std::vector<std::string>& ids);

  /// Waits until `id` has finished initialising.
  void WaitForPlugin(const std::string& id);
  /// Waits until `count` plugins have connected.
  void WaitForConnections(std::size_t count);
  /// The answer's body of the request to `url`, which must come.
  std::string Call(const std::string& url, const std::string& body) const;

  /// As `order` says, calls of the url `url`, whose plugin echoes; what CallRunner gives.
  std::vector<double> Calls(const std::string& url, const Order& order);

  /// What it answers large requests with.
  /// Counts notifications to kHostCountUrl, and pushes.
  Counter& counter() { return counter_; }

 private:
  static bool Callback(const TolmLPCFrame::FrameCallBackData& data, void* user);
  void Answer(const TolmLPCFrame::LPCData& request);

  CallRunner runner_;
  Counter counter_;
  std::mutex mutex_;
  // Guarded by mutex_.
  std::condition_variable changed_;
  std::set<std::string> inited_;
  std::size_t connections_ = 0;
};

/// Sends a notification, again and again while the queue is full.
void MustNotify(const TolmLPCFrame::LPCData& notification);

}  // namespace bench
