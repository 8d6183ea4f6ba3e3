#pragma once

#include <memory>

namespace Tolm::Net {

/// While it lives, a thread that the calling thread starts takes no signals: they are the host's, and are
/// handled on threads of the host. Nothing where a system has no signals.
class SignalsBlocked {
 public:
  SignalsBlocked();
  ~SignalsBlocked();
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  struct Mask;
  const std::unique_ptr<Mask> before_;
};

}  // namespace Tolm::Net
