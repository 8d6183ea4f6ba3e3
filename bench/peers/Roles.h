#pragma once

// What the processes behind a peer's caller have in common.

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "Counter.h"
#include "Process.h"

namespace bench {

/// In a process that serves, once it can be reached: says so, and tells the measuring process each time as
/// many messages as that expects have been counted, until the channel ends.
void Serve(Counter& counter);

/// A name for the files of an endpoint, in the run's runtime folder.
std::string NewEndpoint(const std::string& name);

/// A server that runs this program's role "server", and in front of it, if so wanted, a router that runs its
/// role "router". Both can be reached when this has been made.
class Processes {
 public:
  Processes(const std::string& name, bool routed);

  /// What the callers connect to.
  const std::string& endpoint() const { return router_ ? front_ : back_; }
  Child& server() { return server_; }

 private:
  const std::string front_;
  const std::string back_;
  Child server_;
  std::optional<Child> router_;
};

}  // namespace bench
