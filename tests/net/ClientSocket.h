#pragma once

// What RawClient asks of the system's sockets. Twin files: posix/ClientSocket.cpp and
// windows/ClientSocket.cpp.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tolm::test {

/// As wide as the system's own, on every system.
using ClientSocket = std::intptr_t;
inline constexpr ClientSocket kNoClientSocket = -1;

/// To `port` of the loopback interface; kNoClientSocket when nobody listens. `receive_buffer`: 0 for the
/// system's own.
ClientSocket Connect(std::uint16_t port, int receive_buffer);

/// Whether there is something to be read, or the end; or room to write.
bool WaitForInput(ClientSocket socket, std::chrono::milliseconds limit);
bool WaitForRoom(ClientSocket socket, std::chrono::milliseconds limit);

/// What was taken without waiting; negative when the connection has ended.
std::ptrdiff_t SendSome(ClientSocket socket, std::string_view bytes);
/// What was read; 0 or negative when the connection has ended.
std::ptrdiff_t Receive(ClientSocket socket, char* buffer, std::size_t size);

/// Stands in what the system says of a port that somebody else listens on.
extern const char kPortIsTaken[];

/// Closing it will be a reset instead of an end.
void ResetOnClose(ClientSocket socket);
void CloseSocket(ClientSocket socket);

}  // namespace tolm::test
