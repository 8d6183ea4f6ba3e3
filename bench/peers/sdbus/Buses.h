#pragma once

// Message buses of this run's own. Each listens on a socket in the run's runtime folder, lets everybody do
// everything, has the limits of a session's bus, knows no services to start, and ends with this object.

#include <memory>
#include <optional>
#include <string>

#include "Process.h"
#include "sdbus/Connection.h"

namespace bench::sdbus {

class Bus {
 public:
  virtual ~Bus() = default;
  /// A NotThere when it is not installed or cannot be started.
  explicit Bus(std::string socket) : socket_(std::move(socket)) {}
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  const std::string& socket() const { return socket_; }

 private:
  const std::string socket_;
};

/// dbus-daemon, with a configuration file beside the socket.
class Daemon : public Bus {
 public:
  explicit Daemon(const std::string& socket);

 private:
  std::optional<Child> process_;
};

/// dbus-broker, with this process as its controller: its own launcher asks systemd for much that is not
/// needed here.
class Broker : public Bus {
 public:
  explicit Broker(const std::string& socket);

 private:
  std::optional<Child> process_;
  std::optional<Connection> controller_;
};

}  // namespace bench::sdbus
