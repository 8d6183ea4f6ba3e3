#pragma once

// The library's C functions, with their failures as exceptions.

#include <systemd/sd-bus.h>
#include <cstddef>
#include <memory>
#include <string>

#include "Counter.h"

namespace bench::sdbus {

// What the server offers: Echo answers with the bytes that it got, Take with nothing.
inline constexpr char kPath[] = "/bench";
inline constexpr char kInterface[] = "bench.Interface";
inline constexpr char kEcho[] = "Echo";
inline constexpr char kTake[] = "Take";
/// The server's name on a bus. Without a bus there are no names.
inline constexpr char kServerName[] = "bench.Server";

/// A std::runtime_error when `result` is the library's way to say that something failed.
int Checked(int result, const char* what);

using MessagePointer = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

/// One connection, for one thread at a time.
class Connection {
 public:
  /// To the socket `path`, where a bus listens or else the server itself.
  Connection(const std::string& path, bool bus);
  /// Takes over a descriptor whose other side talks as a server does.
  explicit Connection(int descriptor);
  /// Takes over a client's descriptor, and talks as a server does.
  static Connection Accepted(int descriptor);

  /// A call of the server's `method` with `body` as an array of bytes.
  MessagePointer NewCall(const char* method, const std::string& body) const;
  /// Takes the server's name.
  void TakeName();
  /// Answers what comes, and counts what is not to be answered, until the connection ends.
  void ServeCalls(Counter& counter);

  sd_bus* get() const { return bus_.get(); }

 private:
  Connection();
  void Start();

  std::unique_ptr<sd_bus, decltype(&sd_bus_close_unref)> bus_;
  const char* destination_ = nullptr;
};

}  // namespace bench::sdbus
