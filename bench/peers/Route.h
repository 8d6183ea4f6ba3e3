#pragma once

// What a peer has to offer to be measured: somebody who answers, and ways to reach it.

#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "Process.h"

namespace bench {

/// One thread's way to ask the server. Not to be used by two threads at once.
class Caller {
 public:
  virtual ~Caller() = default;
  /// Sends `body` and waits for the answer; gives how many bytes that has.
  virtual std::size_t Call(const std::string& body) = 0;
};

/// A server in a process of its own, and what lies between it and this process.
class Route {
 public:
  virtual ~Route() = default;
  /// All callers end before the route does.
  virtual std::unique_ptr<Caller> NewCaller() = 0;
  /// Sends `count` messages that nobody answers; returns when the last has been taken over, or received.
  virtual void SendOneWay(const std::string& body, std::size_t count) = 0;
  /// The server's process, which counts those messages (Serve in Roles.h).
  virtual Child& server() = 0;
};

/// Something that this route needs is not there; the text is for the rows' notes.
class NotThere : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// How much makes up a round: what is slow gets less of it.
struct Amounts {
  std::size_t calls = 2'000;
  std::size_t large_calls = 30;
  std::size_t one_way = 40'000;
};

struct RouteKind {
  const char* name;  ///< "direct", "router" ...
  std::function<std::unique_ptr<Route>(const std::string& name)> open;
  Amounts amounts;
};

}  // namespace bench
