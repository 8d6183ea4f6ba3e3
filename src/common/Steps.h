#pragma once

#include <exception>

namespace TolmLPCFrame {

/// Steps of a stop: each is made, whatever has failed before it. Not for several threads.
class Steps {
 public:
  template <typename Step>
  void Make(Step&& step) noexcept {
    try {
      step();
    } catch (...) {
      if (!failure_) failure_ = std::current_exception();
    }
  }
  /// Throws what the first step that failed has thrown, if there is one.
  void Finish() const {
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  std::exception_ptr failure_;
};

}  // namespace TolmLPCFrame
