#pragma once

#include <exception>

#include "TolmBase/LogLine.h"
#include "common/Constants.h"

namespace TolmLPCFrame {

/// What the exception that is being handled says about itself.
/// REQUIRES: called from a catch block. The text must not outlive that block.
inline const char* CaughtExceptionText() noexcept {
  try {
    throw;
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "not a standard exception";
  }
}

}  // namespace TolmLPCFrame

/// Logs the exception that is being handled; the literal `what` says what came of it.
#define TOLM_LOG_CAUGHT(what)                                                    \
  TOLM_LOG(::Tolm::Base::kLogLevelError, ::TolmLPCFrame::kTagError, what ": %s", \
           ::TolmLPCFrame::CaughtExceptionText())
