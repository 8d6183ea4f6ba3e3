#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace trust {

/// Connections to the guard's endpoint that ask for their upgrade and then say nothing; each is made again a
/// moment after it has ended.
class ManyGuards {
 public:
  ManyGuards(int count, std::uint16_t port);
  ~ManyGuards();
  ManyGuards(const ManyGuards&) = delete;
  ManyGuards& operator=(const ManyGuards&) = delete;

  /// From here on one that was let in leaves every now and then, and comes again at the end of the row.
  void TakeTurns() { takes_turns_ = true; }
  /// How many have been let in.
  int connected() const { return connected_; }

 private:
  struct Connection {
    int socket = -1;
    bool asked = false;
    std::string answer;
  };

  void Run(std::uint16_t port);
  void Connect(Connection& connection, std::uint16_t port);
  void Follow(Connection& connection, short events);
  void Close(Connection& connection);
  void CloseOne(std::size_t number);

  std::vector<Connection> connections_;  // of the thread
  std::atomic<int> connected_{0};
  std::atomic<bool> takes_turns_{false};
  std::atomic<bool> ends_{false};
  std::thread thread_;
};

}  // namespace trust
