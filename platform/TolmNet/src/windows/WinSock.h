#pragma once

// Before windows.h, which would bring an older one of it.
#include <winsock2.h>

#include <ws2tcpip.h>

#include "Socket.h"

namespace Tolm::Net {

inline SOCKET Native(Socket socket) {
  return static_cast<SOCKET>(socket);
}

/// A socket for IPv4, non-blocking and not inherited. INVALID_SOCKET: WSAGetLastError says why.
SOCKET NewSocket(int type, int protocol);

sockaddr_in ToSystem(const SocketAddress& address);
SocketAddress FromSystem(const sockaddr_in& address);

}  // namespace Tolm::Net
