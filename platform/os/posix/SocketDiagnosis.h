#pragma once

#include <vector>

#include "SocketTable.h"

namespace os {

/// Appends all IPv4 TCP sockets, as /proc/net/tcp shows them. The kernel is asked over its own socket for
/// such questions: to write /proc/net/tcp takes it some milliseconds on a machine with much memory, however
/// few sockets there are. False when it does not answer, which some containers and kernels do not; `lines` is
/// then unchanged.
bool AskForTcpSockets(std::vector<SocketLine>& lines);

}  // namespace os
