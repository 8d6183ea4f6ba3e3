#pragma once

#include <exception>

namespace TolmLPCFrame {

/// What the exception that is being handled says about itself, for a log line.
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
