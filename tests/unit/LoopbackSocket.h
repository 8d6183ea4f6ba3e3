#pragma once

#include <cstdint>
#include <utility>

namespace tolm::test {

/// An IPv4 socket on 127.0.0.1, closed at its end. Makers throw when the system says no. Twin files.
class LoopbackSocket {
 public:
  enum class Kind { kTcp, kUdp };

  static LoopbackSocket Bound(Kind kind);
  static LoopbackSocket Listening();
  static LoopbackSocket Connected(std::uint16_t port);

  LoopbackSocket(LoopbackSocket&& other) noexcept : native_(std::exchange(other.native_, kNone)) {}
  LoopbackSocket& operator=(LoopbackSocket&&) = delete;
  ~LoopbackSocket() { Close(); }

  LoopbackSocket Accepted() const;
  void ConnectTo(std::uint16_t port) const;
  /// Whether the other end was closed, once that is known.
  bool WaitForEnd() const;
  void Close();

  std::uint16_t port() const;
  /// What the system calls it.
  std::intptr_t native() const { return native_; }

 private:
  static constexpr std::intptr_t kNone = -1;
  explicit LoopbackSocket(std::intptr_t native);
  static LoopbackSocket Made(Kind kind);

  std::intptr_t native_;
};

}  // namespace tolm::test
