#pragma once

#include <unistd.h>
#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace os {

/// Owns a file descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      Close();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  ~Descriptor() { Close(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  void Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  int fd_ = -1;
};

/// "doing something with /a/path: what the system says about errno".
inline std::string SystemMessage(const std::string& doing, int error = errno) {
  return doing + ": " + std::system_category().message(error);
}

}  // namespace os
