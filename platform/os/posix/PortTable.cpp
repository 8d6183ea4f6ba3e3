#include "os/PortTable.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "Descriptor.h"
#include "SocketDiagnosis.h"
#include "SocketOwners.h"
#include "SocketTable.h"

namespace os {
namespace {

using Parser = bool (*)(std::string_view, std::vector<SocketLine>&);

bool ReadWhole(const char* path, std::string& text) {
  const Descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file) return false;
  std::size_t size = 0;
  for (;;) {
    if (text.size() - size < 4096) text.resize(std::max<std::size_t>(2 * text.size(), 16 * 1024));
    const ssize_t got = ::read(file.get(), text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  text.resize(size);
  return true;
}

bool ReadLines(const char* path, Parser parse, std::vector<SocketLine>& lines) {
  std::string text;
  return ReadWhole(path, text) && parse(text, lines);
}

bool ReadTcpLines(std::vector<SocketLine>& lines) {
  return AskForTcpSockets(lines) || ReadLines("/proc/net/tcp", ParseTcpTable, lines);
}

void NameOwners(std::vector<SocketLine>& lines) {
  std::vector<std::uint64_t> held;
  for (const SocketLine& line : lines) {
    if (line.inode != 0) held.push_back(line.inode);
  }
  const std::vector<std::uint32_t> owners = SocketOwners::Instance().Find(held);
  auto owner = owners.begin();
  for (SocketLine& line : lines) {
    if (line.inode != 0) line.row.owning_process_id = *owner++;
  }
}

void Append(std::vector<SocketLine> lines, Owners owners, std::vector<PortRow>& rows) {
  for (SocketLine& line : lines) {
    if (line.inode != 0) line.row.owning_process_id = kUnknownOwner;
  }
  if (owners == Owners::kNamed) NameOwners(lines);
  rows.reserve(rows.size() + lines.size());
  for (const SocketLine& line : lines) rows.push_back(line.row);
}

}  // namespace

bool ReadTcpTable(std::vector<PortRow>& rows, Owners owners) {
  std::vector<SocketLine> lines;
  if (!ReadTcpLines(lines)) return false;
  Append(std::move(lines), owners, rows);
  return true;
}

bool ReadUdpTable(std::vector<PortRow>& rows, Owners owners) {
  std::vector<SocketLine> lines;
  if (!ReadLines("/proc/net/udp", ParseUdpTable, lines)) return false;
  Append(std::move(lines), owners, rows);
  return true;
}

bool IsLoopbackPeerSameUser(std::uint16_t local_port, std::uint16_t remote_port) {
  // The system tells the table in pieces, between which rows may shift: one that is missing is looked for
  // again. It never has one of a wrong user.
  constexpr int kReadings = 4;
  const std::uint32_t loopback = htonl(INADDR_LOOPBACK);
  for (int reading = 0; reading < kReadings; ++reading) {
    std::vector<SocketLine> lines;
    if (!ReadTcpLines(lines)) return false;
    for (const SocketLine& line : lines) {
      const PortRow& row = line.row;
      // Of a socket that no process holds any more the user is shown as 0, whoever it was.
      if (line.inode != 0 && row.local_address == loopback && row.local_port == remote_port &&
          row.remote_address == loopback && row.remote_port == local_port) {
        return line.user == ::geteuid();
      }
    }
  }
  return false;
}

bool IsLoopbackServerSameUser(std::uint16_t local_port, std::uint16_t remote_port) {
  return IsLoopbackPeerSameUser(local_port, remote_port);
}

}  // namespace os
