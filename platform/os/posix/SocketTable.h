#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "os/PortTable.h"

namespace os {

/// One line of /proc/net/tcp or /proc/net/udp, or what the kernel says in its place.
struct SocketLine {
  PortRow row;  ///< without the owner
  std::uint32_t user = 0;
  std::uint64_t inode = 0;  ///< 0: no process holds the socket
};

/// What os::PortRow calls Linux's TCP state `state`.
std::uint32_t TcpState(std::uint32_t state);

/// Appends what the lines of `text` below its heading say. False when one cannot be read; `lines` is then
/// unchanged.
bool ParseTcpTable(std::string_view text, std::vector<SocketLine>& lines);
bool ParseUdpTable(std::string_view text, std::vector<SocketLine>& lines);

}  // namespace os
