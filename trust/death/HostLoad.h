#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "HostEvents.h"
#include "LaterCalls.h"
#include "Tally.h"
#include "TolmLPCFrame.h"

namespace trust::death {

/// What a busy host does: threads that call, ask without waiting and notify, until they are to be quiet.
class HostLoad {
 public:
  HostLoad(Tally& tally, HostEvents& events, std::vector<std::string> plugins);
  /// REQUIRES: the tally is quiet, or the process ends.
  ~HostLoad();

  void Start(int threads);
  /// Waits until no thread is in a call, the tally being quiet.
  void Join();
  /// An answer that reached the callback.
  void OnAnswer(std::uint64_t id) { later_.Answered(id); }
  /// The frame has stopped: no answer comes any more.
  void OnStopped() { later_.HostStopped(); }

 private:
  using Random = std::minstd_rand;

  void Run(unsigned seed);
  bool Act(Caller& caller, Random& random);
  bool Call(Caller& caller, std::size_t plugin, const std::string& url, const std::string& body);

  Tally& tally_;
  const std::vector<std::string> plugins_;
  LaterCalls later_;
  std::vector<std::thread> threads_;
};

}  // namespace trust::death
