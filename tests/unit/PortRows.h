#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "os/PortTable.h"
#include "support/System.h"
#include "support/Wait.h"

namespace os {

inline constexpr std::uint32_t kEstablished = 5;
inline constexpr std::uint32_t kTimeWait = 11;
/// 127.0.0.1 as it lies in memory.
inline constexpr auto kLoopback = std::bit_cast<std::uint32_t>(std::array<std::uint8_t, 4>{127, 0, 0, 1});

/// Whether the system tells whose a socket is. Twin files.
bool TellsOwners();

inline std::uint32_t OwnId() {
  return static_cast<std::uint32_t>(tolm::test::OwnProcessId());
}

using Read = bool (*)(std::vector<PortRow>&);

/// Whether a table could be appended. On some systems a reading fails when the table grows meanwhile.
inline bool ReadOf(Read read, std::vector<PortRow>& rows) {
  return tolm::test::WaitFor([&] { return read(rows); });
}

/// The row of a socket on loopback, if the table shows one.
inline std::optional<PortRow> Row(Read read, std::uint16_t local_port, std::uint16_t remote_port) {
  std::vector<PortRow> rows;
  EXPECT_TRUE(ReadOf(read, rows));
  for (const PortRow& row : rows) {
    if (row.local_address == kLoopback && row.local_port == local_port && row.remote_port == remote_port) {
      return row;
    }
  }
  return std::nullopt;
}

/// The row of a socket that is there. The system tells a table in pieces, between which other programs'
/// sockets come and go, so that one reading may miss a row, or show it twice.
inline std::optional<PortRow> RowOf(Read read, std::uint16_t local_port, std::uint16_t remote_port) {
  std::optional<PortRow> row;
  tolm::test::WaitFor([&] { return (row = Row(read, local_port, remote_port)).has_value(); });
  return row;
}

}  // namespace os
