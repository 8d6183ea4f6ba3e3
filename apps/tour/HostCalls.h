#pragma once

#include <TolmLPCFrame.h>

#include <string>

#include "HostEvents.h"

namespace tour {

/// What came of one call of the host's.
struct Outcome {
  bool answered = false;
  TolmLPCFrame::LPCData answer;
  int error = 0;
  Clock::time_point ended;
  Clock::duration took{};
};

/// Waits for the answer, at most so long.
Outcome Call(const TolmLPCFrame::LPCData& request, int time_out_ms);

TolmLPCFrame::LPCData Request(const std::string& method, const std::string& url);

/// The transport's reasons that a host meets in calls; docs/host-guide.md has them all.
std::string ReasonInWords(int error);

}  // namespace tour
