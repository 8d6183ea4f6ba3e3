#include "os/PortTable.h"

// Before windows.h, which would bring an older one of it.
#include <winsock2.h>

#include <iphlpapi.h>

#include <memory>
#include <new>
#include <optional>

#include "Handle.h"
#include "ProcessUser.h"

namespace os {
namespace {

// The system makes the whole table to tell its size: to ask with too little room costs as much as to read it.
constexpr DWORD kUsualTableSize = 64 * 1024;
// A table may have outgrown its memory at each reading, and Wine's may lack a row while others come and go.
// None has one of a wrong user.
constexpr int kMaxTries = 8;

/// Wine does not know whose a socket is that listens, or that was accepted: it names nobody.
bool IsWine() {
  static const bool is_wine =
      ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
  return is_wine;
}

/// A table's memory, filled; null when the system does not tell. `read` asks the system: where the memory is
/// too small, it tells the size.
template <typename Read>
std::unique_ptr<char[]> ReadTable(Read&& read) {
  DWORD size = kUsualTableSize;
  for (int i = 0; i < kMaxTries; ++i) {
    std::unique_ptr<char[]> table(new (std::nothrow) char[size]);
    if (table == nullptr) return nullptr;
    const DWORD error = read(table.get(), size);
    if (error == NO_ERROR) return table;
    if (error != ERROR_INSUFFICIENT_BUFFER) return nullptr;
    size += size / 2;  // it grows, the more so the longer the system takes over it
  }
  return nullptr;
}

std::unique_ptr<char[]> ReadTcp() {
  return ReadTable([](void* table, DWORD& size) {
    return ::GetExtendedTcpTable(table, &size, TRUE, AF_INET, TCP_TABLE_OWNER_PID_ALL, 0);
  });
}

/// Ports stand in network order in the low 16 bits; what the high ones hold means nothing.
std::uint16_t Port(DWORD field) {
  return ::ntohs(static_cast<std::uint16_t>(field & 0xFFFF));
}

PortRow Convert(const MIB_TCPROW_OWNER_PID& from) {
  PortRow row;
  row.local_address = from.dwLocalAddr;
  row.local_port = Port(from.dwLocalPort);
  row.remote_address = from.dwRemoteAddr;
  // The field of a socket that listens is not filled in.
  if (from.dwState != kTcpStateListen) row.remote_port = Port(from.dwRemotePort);
  row.state = from.dwState;
  const bool is_unseen = from.dwOwningPid == 0 && from.dwState == kTcpStateListen && IsWine();
  row.owning_process_id = is_unseen ? kUnknownOwner : from.dwOwningPid;
  return row;
}

PortRow Convert(const MIB_UDPROW_OWNER_PID& from) {
  PortRow row;
  row.local_address = from.dwLocalAddr;
  row.local_port = Port(from.dwLocalPort);
  row.owning_process_id = from.dwOwningPid;
  return row;
}

template <typename Table>
bool Append(const std::unique_ptr<char[]>& memory, std::vector<PortRow>& rows) {
  if (memory == nullptr) return false;
  const auto* table = reinterpret_cast<const Table*>(memory.get());
  for (DWORD i = 0; i < table->dwNumEntries; ++i) rows.push_back(Convert(table->table[i]));
  return true;
}

}  // namespace

// The tables name the owners anyway.
bool ReadTcpTable(std::vector<PortRow>& rows, Owners /*owners*/) {
  return Append<MIB_TCPTABLE_OWNER_PID>(ReadTcp(), rows);
}

bool ReadUdpTable(std::vector<PortRow>& rows, Owners /*owners*/) {
  return Append<MIB_UDPTABLE_OWNER_PID>(ReadTable([](void* table, DWORD& size) {
                                          return ::GetExtendedUdpTable(table, &size, TRUE, AF_INET,
                                                                       UDP_TABLE_OWNER_PID, 0);
                                        }),
                                        rows);
}

namespace {

/// The owner of the connection's other end; nothing when there is no such connection, or the table cannot be
/// read.
std::optional<PortRow> OtherEnd(std::uint16_t local_port, std::uint16_t remote_port) {
  const std::uint32_t loopback = ::htonl(INADDR_LOOPBACK);
  for (int i = 0; i < kMaxTries; ++i) {
    std::vector<PortRow> rows;
    ReadTcpTable(rows);
    for (const PortRow& row : rows) {
      if (row.local_address == loopback && row.local_port == remote_port && row.remote_address == loopback &&
          row.remote_port == local_port) {
        return row;
      }
    }
  }
  return std::nullopt;
}

bool IsOfThisUser(const PortRow& row) {
  if (row.owning_process_id == 0) return false;
  const Handle owner(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, row.owning_process_id));
  const std::vector<char> user = UserOf(owner);
  return !user.empty() && user == OwnUser();
}

}  // namespace

bool IsLoopbackPeerSameUser(std::uint16_t local_port, std::uint16_t remote_port) {
  const auto other = OtherEnd(local_port, remote_port);
  return other && IsOfThisUser(*other);
}

bool IsLoopbackServerSameUser(std::uint16_t local_port, std::uint16_t remote_port) {
  const auto other = OtherEnd(local_port, remote_port);
  if (!other) return false;
  if (other->owning_process_id == 0 && IsWine()) return other->state == MIB_TCP_STATE_ESTAB;
  return IsOfThisUser(*other);
}

}  // namespace os
