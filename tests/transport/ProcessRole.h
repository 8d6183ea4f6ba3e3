#pragma once

#include <string>

#include "support/ChildProcess.h"

namespace tolm::test {

/// This test program, run once more in another role; it ends with the object at the latest. To be made on
/// the main thread.
class ProcessRole {
 public:
  /// Listens under the name `argument`.
  static constexpr char kHoldEndpoint[] = "--hold-endpoint";
  /// Connects with the id `argument` and never answers.
  static constexpr char kSilentPlugin[] = "--silent-plugin";

  /// Starts it and waits until it says that it plays its role.
  ProcessRole(const std::string& role, const std::string& argument);

  bool ready() const { return ready_; }
  /// As a crash: without any chance to clean up. Returns when the process is gone.
  void Kill();

 private:
  ChildProcess process_;
  const bool ready_;
};

}  // namespace tolm::test
