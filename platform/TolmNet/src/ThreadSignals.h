#pragma once

#include <memory>

namespace Tolm::Net {

/// While it lives, a thread that the calling thread starts takes no signals: they are the host's, and are
/// handled on threads of the host.
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

/// Puts back at its end what the process does about a broken pipe; making a context of libwebsockets sets
/// it to "ignore" without being asked. One at a time: others wait.
class PipeSignalKept {
 public:
  PipeSignalKept();
  ~PipeSignalKept();
  PipeSignalKept(const PipeSignalKept&) = delete;
  PipeSignalKept& operator=(const PipeSignalKept&) = delete;

 private:
  struct Action;
  const std::unique_ptr<Action> before_;
};

}  // namespace Tolm::Net
