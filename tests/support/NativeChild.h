#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace tolm::test {

/// What the system knows of a child process. Twin files make it.
class NativeChild {
 public:
  virtual ~NativeChild() = default;
  /// With stdin, and with stdout and stderr in one. It is killed when this process ends. Throws.
  static std::unique_ptr<NativeChild> Start(std::vector<std::string> command);

  virtual ProcessId id() const = 0;
  virtual void Interrupt() = 0;
  /// A child that has ended takes nothing, without an error.
  virtual void Write(const std::string& text) = 0;
  virtual void CloseInput() = 0;
  /// Waits for output; 0 at the end of all of it.
  virtual std::size_t Read(char* buffer, std::size_t size) = 0;
  /// Waits for its end without giving up its id.
  virtual void WaitEnd() = 0;
  /// Gives up its id, which may become another process's.
  virtual Exit Collect() = 0;
};

}  // namespace tolm::test
