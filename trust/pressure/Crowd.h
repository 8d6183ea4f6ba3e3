#pragma once

#include <string>
#include <vector>

#include "Process.h"

namespace trust {

/// A process of this program that has a role and takes orders.
class Crowd {
 public:
  explicit Crowd(const std::string& role) : child_({"--role", role}) {}
  /// Of a program that begins this one.
  Crowd(const std::string& program, const std::vector<std::string>& arguments) : child_(program, arguments) {}

  /// The numbers that an order is answered with.
  std::vector<double> Do(const std::string& order);

 private:
  bench::Child child_;
};

// The roles, until the other process ends.

/// "process": its id; "lines": how many lines the frame has logged since it was last asked, how many of them
/// are errors, and how many of these say that nobody can be let in; "call URL": 1 when it was answered.
int RunFewHostRole(const std::string& endpoint);
/// Bare clients of the transport. "connect COUNT ENDPOINT"; "connected": how many are.
int RunFewClientsRole();
/// Connections of guards, which are made again when they end. "connect COUNT PORT"; "connected": how many
/// have been let in; "turns": from here on they come and go.
int RunFewGuardsRole();
/// "run" does what RunNoMemory does; `arguments` are its own, with commas between them.
int RunNoMemoryRole(const std::string& arguments);

}  // namespace trust
