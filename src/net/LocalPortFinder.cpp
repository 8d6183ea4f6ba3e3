#include "net/LocalPortFinder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "os/PortTable.h"

namespace TolmLPCFrame {
namespace {

/// What the narrowest C runtime's rand gives; a wider one is cut down to it, which keeps the port range.
constexpr int kRandomValues = 32768;
constexpr int kTries = 49;

// Which process holds the port is not asked, since to find that out takes the system far longer.
bool HoldsPort(bool (*read)(std::vector<os::PortRow>&, os::Owners), std::int32_t port) {
  std::vector<os::PortRow> rows;
  read(rows, os::Owners::kWhetherAny);
  return std::any_of(rows.begin(), rows.end(), [port](const os::PortRow& row) {
    return row.owning_process_id != 0 && row.local_port == port;
  });
}

}  // namespace

CLocalPortFinder& CLocalPortFinder::GetInstance() {
  return Tolm::Base::CSingleton<CLocalPortFinder>::Instance();
}

std::int32_t CLocalPortFinder::GetFreePort() {
  // Where the search begins need not be hard to guess.
  // NOLINTNEXTLINE(cert-msc30-c, cert-msc50-cpp)
  std::int32_t candidate = std::rand() % kRandomValues % 60000 + 1024;
  for (int step = 1; step <= kTries; ++step) {
    candidate += step;
    if (!IsPortInUse(candidate)) return candidate;
  }
  return 0;
}

bool CLocalPortFinder::IsPortInUse(std::int32_t port) {
  return HoldsPort(os::ReadTcpTable, port) || HoldsPort(os::ReadUdpTable, port);
}

bool CLocalPortFinder::CollectTcpTable(std::vector<PortTableEntry>& entries) {
  std::vector<os::PortRow> rows;
  if (!os::ReadTcpTable(rows)) return false;
  entries.reserve(entries.size() + rows.size());
  for (const os::PortRow& row : rows) {
    entries.push_back({FormatIpv4(row.local_address), row.local_port, FormatIpv4(row.remote_address),
                       row.state == os::kTcpStateListen ? 0U : row.remote_port, row.state,
                       row.owning_process_id});
  }
  return true;
}

bool CLocalPortFinder::CollectUdpTable(std::vector<PortTableEntry>& entries) {
  std::vector<os::PortRow> rows;
  if (!os::ReadUdpTable(rows)) return false;
  entries.reserve(entries.size() + rows.size());
  for (const os::PortRow& row : rows) {
    entries.push_back({FormatIpv4(row.local_address), row.local_port, {}, 0, 0, row.owning_process_id});
  }
  return true;
}

std::string FormatIpv4(std::uint32_t address) {
  unsigned char bytes[sizeof address];
  std::memcpy(bytes, &address, sizeof address);
  std::string text;
  for (const unsigned char byte : bytes) {
    if (!text.empty()) text += '.';
    text += std::to_string(byte);
  }
  return text;
}

}  // namespace TolmLPCFrame
