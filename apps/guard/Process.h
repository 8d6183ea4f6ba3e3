#pragma once

#include <functional>
#include <memory>
#include <string>

#include "os/ChildProcess.h"

namespace guard {

/// A plugin's process, as its supervisor sees it. No operation blocks. Destroying it kills what is left
/// of its tree.
class Process {
 public:
  virtual ~Process() = default;

  virtual long id() const = 0;
  virtual void AskToEnd() = 0;
  virtual void KillTree() = 0;
};

/// Starts a process; null, with the reason in `why`, when it cannot be started. The request's handlers are
/// called on other threads, perhaps before this returns.
using ProcessStarter = std::function<std::unique_ptr<Process>(os::ProcessRequest request, std::string& why)>;

}  // namespace guard
