#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

namespace trust {

/// The other end of the guard's connection.
class Guard {
 public:
  enum class Kind { kAbsent, kAnswers, kSilent, kComesAndGoes };

  /// Looks for the frame until it ends.
  Guard(Kind kind, int frame_type);
  ~Guard() = default;
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

  /// Whether it is, or was, connected.
  bool WasThere() const { return was_there_; }

 private:
  void Live(const std::stop_token& stop, int frame_type);
  bool Connected(const std::stop_token& stop, std::uint16_t port);

  const Kind kind_;
  std::atomic<bool> was_there_{false};
  std::jthread thread_;
};

}  // namespace trust
