// Any text as the kernel's table of sockets: all of it is read or nothing, line by line, and its numbers are
// those that stand there.

#include "SocketTable.h"

#include <cstdio>

#include "support/Input.h"

namespace {

using fuzz::Require;

void Look(const std::string& text) {
  for (const bool tcp : {true, false}) {
    std::vector<os::SocketLine> lines(1);
    const bool read = tcp ? os::ParseTcpTable(text, lines) : os::ParseUdpTable(text, lines);
    const auto feeds = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    Require(read ? lines.size() == feeds : lines.size() == 1, "a row for each line, or none");
    for (const os::SocketLine& line : lines) {
      Require(tcp ? line.row.state <= 12 : line.row.state == 0, "a state is one of the table's");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Look(std::string(reinterpret_cast<const char*>(data), size));

  // A line as the kernel writes it.
  fuzz::Input input(data, size);
  const auto number = [&input] {
    const unsigned high = input.Byte() << 8 | input.Byte();
    return high << 16 | input.Byte() << 8 | input.Byte();
  };
  const unsigned address = number();
  const unsigned port = number() & 0xFFFF;
  const unsigned user = number();
  const unsigned inode = number();
  char line[200];
  std::snprintf(line, sizeof line,
                "heading\n   0: %08X:%04X 00000000:0000 0A 00000000:00000000 00:00000000 00000000  %u        "
                "0 %u 1 0 100\n",
                address, port, user, inode);
  std::vector<os::SocketLine> rows;
  Require(os::ParseTcpTable(line, rows) && rows.size() == 1, "a line of the kernel is read");
  Require(rows[0].row.local_address == address && rows[0].row.local_port == port && rows[0].user == user &&
              rows[0].inode == inode,
          "with its numbers");
  return 0;
}
