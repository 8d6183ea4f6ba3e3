#pragma once

#include <sys/types.h>

#include <string>

namespace tolm::test {

/// This test program, run once more in another role; it ends with the object at the latest.
class ProcessRole {
 public:
  /// Listens under the name `argument`.
  static constexpr char kHoldEndpoint[] = "--hold-endpoint";
  /// Connects with the id `argument` and never answers.
  static constexpr char kSilentPlugin[] = "--silent-plugin";

  /// Starts it and waits until it says that it plays its role.
  ProcessRole(const std::string& role, const std::string& argument);
  ~ProcessRole();
  ProcessRole(const ProcessRole&) = delete;
  ProcessRole& operator=(const ProcessRole&) = delete;

  bool ready() const { return ready_; }
  /// As a crash: without any chance to clean up. Returns when the process is gone.
  void Kill();

 private:
  pid_t process_ = -1;
  int watch_ = -1;  // the child ends when this does
  bool ready_ = false;
};

}  // namespace tolm::test
