#pragma once

#include <memory>
#include <vector>

#include "Handle.h"

namespace os {

/// What a new process gets beside its start-up information: the handles that it inherits, which are those
/// that are named here and no others, although others may be inheritable; and the job that it is in from
/// its first moment on.
class StartAttributes {
 public:
  StartAttributes(std::vector<HANDLE> inherited, HANDLE job);
  ~StartAttributes();
  StartAttributes(const StartAttributes&) = delete;
  StartAttributes& operator=(const StartAttributes&) = delete;

  /// False when the system said no (GetLastError).
  bool is_good() const { return is_good_; }
  LPPROC_THREAD_ATTRIBUTE_LIST list() const {
    return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory_.get());
  }

 private:
  // The list points to both.
  std::vector<HANDLE> inherited_;
  HANDLE job_;
  std::unique_ptr<char[]> memory_;
  bool is_made_ = false;
  bool is_good_ = false;
};

}  // namespace os
