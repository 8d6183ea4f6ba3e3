#pragma once

#include "TolmBase/LogLine.h"

#define AGENT_LOG_INFO(...) TOLM_LOG(::Tolm::Base::kLogLevelInfo, "TolmAgent", __VA_ARGS__)
#define AGENT_LOG_WARNING(...) TOLM_LOG(::Tolm::Base::kLogLevelWarning, "TolmAgent", __VA_ARGS__)
#define AGENT_LOG_ERROR(...) TOLM_LOG(::Tolm::Base::kLogLevelError, "TolmAgent", __VA_ARGS__)

namespace tolm::agent {

struct Layout;

/// Lets log lines go into a file of the layout, from information on. Where none can be written, errors
/// go to stderr as before.
void OpenLog(const Layout& layout);

}  // namespace tolm::agent
