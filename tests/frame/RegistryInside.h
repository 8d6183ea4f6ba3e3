#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lpcintegratemodule/LPCIntegrate.h"

namespace tolm::test {

// What the registry holds and no operation of it shows.

/// Makes the registry as it was before anything happened in this process.
void ForgetEverything(TolmLPCFrame::CLPCIntegrate& registry);
/// Makes the registry forget the time-out of one url, as if its registration stood halfway.
void ForgetTimeout(TolmLPCFrame::CLPCIntegrate& registry, const std::string& lower_case_url);
/// The registered time-outs by url, also those of urls that nobody serves any more.
std::map<std::string, std::int32_t> TimeoutsByUrl(const TolmLPCFrame::CLPCIntegrate& registry);
/// The urls that the host registered as its own.
std::vector<std::string> UrlsOfHost(const TolmLPCFrame::CLPCIntegrate& registry);
std::int32_t TypeOfFrame(const TolmLPCFrame::CLPCIntegrate& registry);
/// Who was sent "Uninit" and has not answered.
std::vector<std::string> StillUniniting(TolmLPCFrame::CLPCIntegrate& registry);

}  // namespace tolm::test
