// How long the frame needs to find out whether its port is taken, on a machine with many sockets.

#include "os/PortTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "Channel.h"
#include "Measurements.h"
#include "Samples.h"
#include "posix/Copy.h"

namespace bench {
namespace {

constexpr std::size_t kProcesses = 500;
// Few enough for every limit of descriptors.
constexpr int kTcpEach = 7;
constexpr int kUdpEach = 3;
constexpr std::size_t kSockets = kProcesses * (kTcpEach + kUdpEach);

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void OpenSocket(int type) {
  const int made = ::socket(AF_INET, type, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (made < 0 || ::bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      (type == SOCK_STREAM && ::listen(made, 1) != 0)) {
    Fail("not as many sockets as wanted");
  }
}

/// A process that holds sockets, and as many other descriptors as are said, and does nothing.
std::unique_ptr<Copy> MakeBystander(int others) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) Fail("no pipe");
  Channel reading(ends[0]);
  auto bystander = std::make_unique<Copy>([&] {
    // Not what this program was started with.
    if (::dup2(ends[1], kChildDescriptor) < 0) Fail("no descriptor");
    ::close_range(kChildDescriptor + 1, ~0U, 0);
    for (int i = 0; i < kTcpEach; ++i) OpenSocket(SOCK_STREAM);
    for (int i = 0; i < kUdpEach; ++i) OpenSocket(SOCK_DGRAM);
    for (int i = 0; i < others; ++i) {
      if (::open("/dev/null", O_RDONLY) < 0) Fail("not as many descriptors as wanted");
    }
    Channel(kChildDescriptor).Write("x", 1);
    for (;;) ::pause();
  });
  ::close(ends[1]);
  char done = 0;
  if (!reading.Read(&done, 1)) throw std::runtime_error("not as many sockets as wanted");
  return bystander;
}

std::vector<os::PortRow> ReadTables() {
  std::vector<os::PortRow> rows;
  if (!os::ReadTcpTable(rows) || !os::ReadUdpTable(rows)) {
    throw std::runtime_error("the tables cannot be read");
  }
  return rows;
}

struct Reading {
  double first_ms = 0;  ///< nothing is known of any socket, as when a frame starts
  double again_ms = 0;
  std::size_t rows = 0;
};

/// In a process of its own, since what is found out may be kept there.
Reading ReadApart(const std::set<std::uint32_t>& bystanders) {
  std::istringstream text(RunApart(
      [&] {
        std::vector<os::PortRow> rows;
        const double first = Microseconds([&] { rows = ReadTables(); });
        const double again = Microseconds([] { ReadTables(); });
        const auto held = std::count_if(rows.begin(), rows.end(), [&](const os::PortRow& row) {
          return bystanders.contains(row.owning_process_id);
        });
        if (static_cast<std::size_t>(held) != kSockets) throw std::runtime_error("an owner was not found");
        return std::to_string(first / 1e3) + ' ' + std::to_string(again / 1e3) + ' ' +
               std::to_string(rows.size());
      },
      30));
  Reading reading;
  text >> reading.first_ms >> reading.again_ms >> reading.rows;
  return reading;
}

// What the system alone takes for the same facts.

using Folder = std::unique_ptr<DIR, int (*)(DIR*)>;

std::size_t ReadAndForget(const char* path) {
  std::array<char, 64 * 1024> buffer;
  const int file = ::open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) Fail(path);
  std::size_t size = 0;
  for (ssize_t got = 0; (got = ::read(file, buffer.data(), buffer.size())) > 0;) {
    size += static_cast<std::size_t>(got);
  }
  ::close(file);
  return size;
}

/// How many descriptors all processes have.
std::size_t ReadDescriptorsAndForget() {
  std::size_t read = 0;
  std::array<char, 64> target;
  const Folder processes(::opendir("/proc"), ::closedir);
  if (processes == nullptr) Fail("/proc");
  while (const dirent* const process = ::readdir(processes.get())) {
    if (std::isdigit(static_cast<unsigned char>(process->d_name[0])) == 0) continue;
    const std::string path = "/proc/" + std::string(process->d_name) + "/fd";
    const Folder descriptors(::opendir(path.c_str()), ::closedir);
    if (descriptors == nullptr) continue;  // it has ended
    while (const dirent* const entry = ::readdir(descriptors.get())) {
      if (::readlinkat(::dirfd(descriptors.get()), entry->d_name, target.data(), target.size()) > 0) ++read;
    }
  }
  return read;
}

std::size_t ProcessesThatRun() {
  std::size_t count = 0;
  const Folder processes(::opendir("/proc"), ::closedir);
  while (const dirent* const process = processes ? ::readdir(processes.get()) : nullptr) {
    count += std::isdigit(static_cast<unsigned char>(process->d_name[0])) != 0 ? 1 : 0;
  }
  return count;
}

double MillisecondsToReadAndForget() {
  return std::stod(RunApart(
      [] {
        return std::to_string(Microseconds([] {
                                ReadAndForget("/proc/net/tcp");
                                ReadAndForget("/proc/net/udp");
                                ReadDescriptorsAndForget();
                              }) /
                              1e3);
      },
      30));
}

struct Crowd {
  int others;        ///< descriptors in each process that are no sockets
  const char* name;  ///< of the rows
};

std::vector<Row> MeasureAmong(const Crowd& crowd, int count) {
  std::vector<std::unique_ptr<Copy>> bystanders;
  std::set<std::uint32_t> ids;
  for (std::size_t i = 0; i < kProcesses; ++i) {
    bystanders.push_back(MakeBystander(crowd.others));
    ids.insert(static_cast<std::uint32_t>(bystanders.back()->process()));
  }
  Reading reading;
  Rounds raw;
  Rounds first;
  Rounds again;
  Alternate(
      count, [&] { raw.Add(MillisecondsToReadAndForget()); },
      [&] {
        reading = ReadApart(ids);
        first.Add(reading.first_ms);
        again.Add(reading.again_ms);
      });
  std::vector<Row> rows{MakeRow(std::string(crowd.name) + ".first", "ms", first, raw),
                        MakeRow(std::string(crowd.name) + ".again", "ms", again, raw)};
  rows.front().note = std::to_string(reading.rows) + " sockets, " + std::to_string(ProcessesThatRun()) +
                      " processes with " + std::to_string(ReadDescriptorsAndForget()) + " descriptors";
  rows.back().note = "once more in the same process";
  return rows;
}

}  // namespace

std::vector<Row> MeasurePortTables(const Settings& settings) {
  constexpr Crowd kOnlySockets{0, "ports.sockets"};
  constexpr Crowd kWithFiles{10, "ports.files"};
  auto rows = MeasureAmong(kOnlySockets, settings.Rounds(15));
  WantAtMost(rows.front(), rows.front().median, 50, "<= 50 ms");
  const auto more = MeasureAmong(kWithFiles, settings.Rounds(15));
  rows.insert(rows.end(), more.begin(), more.end());
  return rows;
}

}  // namespace bench
