#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lpcintegratemodule/LPCCommunicateWithTolmGuard.h"
#include "net/TolmGuardConnectionManager.h"

namespace tolm::test {

// What the guard's side holds and no operation of it shows.

/// Makes both as they were before anything happened in this process. Nobody else may use them meanwhile.
void ForgetEverything(TolmLPCFrame::CTolmGuardConnectManager& endpoint);
void ForgetEverything(TolmLPCFrame::CLPCCommunicateWithTolmGuard& guard);

std::uint16_t PortOf(const TolmLPCFrame::CTolmGuardConnectManager& endpoint);
std::int32_t ServerHandleOf(const TolmLPCFrame::CTolmGuardConnectManager& endpoint);
/// Replies that nobody has taken, by guid.
std::map<std::string, std::string> StoredReplies(TolmLPCFrame::CTolmGuardConnectManager& endpoint);
/// Guids that were ever waited for; whether somebody still does.
std::map<std::string, bool> Waiters(TolmLPCFrame::CTolmGuardConnectManager& endpoint);

std::string AgentEventNameOf(TolmLPCFrame::CLPCCommunicateWithTolmGuard& guard);
std::vector<std::string> VerifiedPlugins(TolmLPCFrame::CLPCCommunicateWithTolmGuard& guard);

}  // namespace tolm::test
