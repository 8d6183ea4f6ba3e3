#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Scripted.h"
#include "os/HiddenProcess.h"
#include "os/PortTable.h"

namespace tolm::test {

/// Stands behind the operating system's events, processes, port tables and unbuffered files. Noted in the
/// journal before a script runs:
///
///   event.Open <name>     event.Set     event.Wait 5000
///   process.Start <command line>                  process.Remove <command>
///   table.Tcp             table.Udp
///   file.Open <path>      file.Size               file.Write <block> <bytes>
class ScriptedSystem {
 public:
  static ScriptedSystem& Get();
  /// No event exists and no port is held; processes start as number 4711; files are plain ones.
  void Reset();

  /// What ExecutableDirectory gives.
  Scripted<std::string()> directory;

  Scripted<bool(const std::string& name)> event_exists;
  Scripted<bool(int timeout_ms)> event_wait;
  Scripted<os::StartedProcess(const std::string& command_line)> start;

  Scripted<bool(std::vector<os::PortRow>&)> tcp_table;
  Scripted<bool(std::vector<os::PortRow>&)> udp_table;

  /// Whether the file can be opened, its size told, and written; if so, that is done to a plain file.
  Scripted<bool(const std::string& path)> file_open;
  Scripted<bool(std::uint64_t& size)> file_size;
  Scripted<bool(std::size_t block)> file_write;

 private:
  ScriptedSystem() { Reset(); }
};

/// What an event's native() gives.
inline constexpr std::intptr_t kEventHandle = 77;

/// A table row that says who holds a port.
os::PortRow Held(std::uint16_t port, std::uint32_t owner = 1234);

}  // namespace tolm::test
