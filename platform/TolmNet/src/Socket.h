#pragma once

// What we ask of the system's sockets ourselves: a listener that shares its port with nobody, accepting
// that tells a shortage from an end, and sending that says how much was taken.

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tolm::Net {

/// As wide as the system's own, on every system.
using Socket = std::intptr_t;
inline constexpr Socket kNoSocket = -1;

/// An IPv4 address, four bytes as a number (127.0.0.1 is 0x7F000001), and a port.
struct SocketAddress {
  std::uint32_t ip = 0;
  std::uint16_t port = 0;
};

/// False when `text` is no IPv4 address in dotted decimal.
bool ParseIp(const std::string& text, std::uint32_t& ip);
std::string IpText(std::uint32_t ip);
inline constexpr std::uint32_t kLoopback = 0x7F000001;

/// A listening socket, non-blocking and not inherited; or kNoSocket with the system's text in `error`.
Socket Listen(const SocketAddress& address, std::string& error);

struct Accepted {
  Socket socket = kNoSocket;  ///< non-blocking and not inherited
  SocketAddress local;
  SocketAddress peer;
};

enum class AcceptResult {
  kAccepted,
  kNobody,    ///< nobody waits
  kShortage,  ///< somebody waits, and the system has no descriptor or memory for him; `error` says which
};

AcceptResult Accept(Socket listener, Accepted& accepted, std::string& error);

/// What was taken of `size` bytes; 0 when there is no room now, negative when the connection is broken.
/// Raises no signal.
std::ptrdiff_t Send(Socket socket, const char* data, std::size_t size);

/// Tells the peer that nothing follows.
void EndSending(Socket socket);
void Close(Socket socket);

}  // namespace Tolm::Net
