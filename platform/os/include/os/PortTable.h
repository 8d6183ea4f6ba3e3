#pragma once

#include <cstdint>
#include <vector>

namespace os {

/// TCP states as the tables number them on every system.
inline constexpr std::uint32_t kTcpStateListen = 2;

/// The owner of a socket that exists and whose process may not be seen.
inline constexpr std::uint32_t kUnknownOwner = 0xFFFFFFFF;

/// One IPv4 socket. Addresses are four bytes in memory order, that is network order; ports are numbers.
struct PortRow {
  std::uint32_t local_address = 0;
  std::uint16_t local_port = 0;
  std::uint32_t remote_address = 0;
  std::uint16_t remote_port = 0;
  std::uint32_t state = 0;              ///< 0 for UDP
  std::uint32_t owning_process_id = 0;  ///< 0: held by no process any more (a closed connection's rest)
};

/// What is to be said of who holds a socket.
enum class Owners {
  kNamed,
  kWhetherAny,  ///< kUnknownOwner may stand for any, where it takes time to find out which
};

/// Appends the system's sockets to `rows`. False when the system does not tell; `rows` is then unchanged. On
/// Windows this is also so when the table has grown while it was read.
bool ReadTcpTable(std::vector<PortRow>& rows, Owners owners);
bool ReadUdpTable(std::vector<PortRow>& rows, Owners owners);

inline bool ReadTcpTable(std::vector<PortRow>& rows) {
  return ReadTcpTable(rows, Owners::kNamed);
}
inline bool ReadUdpTable(std::vector<PortRow>& rows) {
  return ReadUdpTable(rows, Owners::kNamed);
}

/// Whether the other end of a loopback TCP connection belongs to the user that this process runs as, as
/// the system vouches for it; false when it does not tell. Ports of the end that asks: `local_port` is
/// its own, `remote_port` that of the other end; both ends are 127.0.0.1.
bool IsLoopbackPeerSameUser(std::uint16_t local_port, std::uint16_t remote_port);

/// The same, asked by the end that has connected about the end that has accepted. Under Wine, which does not
/// know whose such an end is, a connection that stands counts as this user's.
bool IsLoopbackServerSameUser(std::uint16_t local_port, std::uint16_t remote_port);

}  // namespace os
