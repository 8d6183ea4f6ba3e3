#include "SocketTable.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace os {
namespace {

/// Takes the next word off `line`; empty at its end.
std::string_view TakeWord(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  const std::string_view word = line.substr(0, line.find(' '));
  line.remove_prefix(word.size());
  return word;
}

template <typename Number>
bool ParseNumber(std::string_view word, int base, Number& number) {
  const char* const end = word.data() + word.size();
  const auto [behind, error] = std::from_chars(word.data(), end, number, base);
  return error == std::errc() && behind == end;
}

/// "0100007F:1F90": the address as the number that its bytes are in memory, the port as a number.
bool ParseAddress(std::string_view word, std::uint32_t& address, std::uint16_t& port) {
  const std::size_t colon = word.find(':');
  return colon != std::string_view::npos && ParseNumber(word.substr(0, colon), 16, address) &&
         ParseNumber(word.substr(colon + 1), 16, port);
}

bool ParseLine(std::string_view line, SocketLine& parsed) {
  PortRow& row = parsed.row;
  TakeWord(line);  // the line's number
  if (!ParseAddress(TakeWord(line), row.local_address, row.local_port) ||
      !ParseAddress(TakeWord(line), row.remote_address, row.remote_port) ||
      !ParseNumber(TakeWord(line), 16, row.state)) {
    return false;
  }
  for (int i = 0; i < 3; ++i) TakeWord(line);  // queues, timer, retransmissions
  if (!ParseNumber(TakeWord(line), 10, parsed.user)) return false;
  TakeWord(line);  // time-out
  return ParseNumber(TakeWord(line), 10, parsed.inode);
}

bool ParseLines(std::string_view text, std::vector<SocketLine>& lines) {
  const std::size_t before = lines.size();
  // The heading is there on an idle system, too.
  std::size_t end = text.find('\n');
  bool readable = end != std::string_view::npos;
  while (readable && end + 1 < text.size()) {
    text.remove_prefix(end + 1);
    end = text.find('\n');
    readable = end != std::string_view::npos && ParseLine(text.substr(0, end), lines.emplace_back());
  }
  if (!readable) lines.resize(before);
  return readable;
}

}  // namespace

std::uint32_t TcpState(std::uint32_t state) {
  constexpr std::uint32_t kStates[] = {
      0,
      5,                // established
      3,                // SYN sent
      4,                // SYN received
      6,                // FIN wait 1
      7,                // FIN wait 2
      11,               // time wait
      1,                // closed
      8,                // close wait
      10,               // last ACK
      kTcpStateListen,  //
      9,                // closing
      4,                // SYN received, not yet a socket
      1,                // bound, nothing else
  };
  return state < std::size(kStates) ? kStates[state] : 0;
}

bool ParseTcpTable(std::string_view text, std::vector<SocketLine>& lines) {
  const std::size_t before = lines.size();
  if (!ParseLines(text, lines)) return false;
  for (std::size_t i = before; i < lines.size(); ++i) lines[i].row.state = TcpState(lines[i].row.state);
  return true;
}

bool ParseUdpTable(std::string_view text, std::vector<SocketLine>& lines) {
  const std::size_t before = lines.size();
  if (!ParseLines(text, lines)) return false;
  for (std::size_t i = before; i < lines.size(); ++i) {
    lines[i].row.remote_address = 0;
    lines[i].row.remote_port = 0;
    lines[i].row.state = 0;
  }
  return true;
}

}  // namespace os
