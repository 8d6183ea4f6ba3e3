#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "TolmBase/Singleton.h"

namespace TolmLPCFrame {

/// One row of the system's IPv4 connection tables.
struct PortTableEntry {
  std::string local_address;  ///< dotted decimal
  std::uint32_t local_port = 0;
  std::string remote_address;     ///< dotted decimal; empty for UDP
  std::uint32_t remote_port = 0;  ///< 0 for a listening TCP socket and for UDP
  std::uint32_t state = 0;        ///< of TCP; 0 for UDP
  std::uint32_t owning_process_id = 0;
};

/// Finds ports that nobody holds. One instance in the process: CLocalPortFinder::GetInstance(). May be
/// used by many threads.
class CLocalPortFinder {
 public:
  static CLocalPortFinder& GetInstance();

  /// A free port between 1025 and 35016, or 0 when the 49 that are tried are all taken. The first one is
  /// chosen by the C runtime's random numbers, which are never seeded here.
  std::int32_t GetFreePort();
  /// Whether a process holds `port` in the TCP or UDP table. A table that cannot be read holds nothing.
  bool IsPortInUse(std::int32_t port);

  /// Append the system's rows to `entries`. False when the system does not tell.
  bool CollectTcpTable(std::vector<PortTableEntry>& entries);
  bool CollectUdpTable(std::vector<PortTableEntry>& entries);

 private:
  friend class Tolm::Base::CSingleton<CLocalPortFinder>;
  CLocalPortFinder() = default;
};

/// Four bytes in memory order as dotted decimal.
std::string FormatIpv4(std::uint32_t address);

}  // namespace TolmLPCFrame
