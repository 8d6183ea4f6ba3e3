#pragma once

#include <windows.h>

#include <utility>

namespace tolm::test {

/// The exit status of a process that a test has killed.
inline constexpr UINT kKilledStatus = 0xDEAD;

/// Closes a handle at its end. Functions that failed give null or INVALID_HANDLE_VALUE: no handle.
class OwnedHandle {
 public:
  OwnedHandle() = default;
  explicit OwnedHandle(HANDLE handle) : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
  OwnedHandle(OwnedHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  OwnedHandle& operator=(OwnedHandle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~OwnedHandle() {
    if (handle_ != nullptr) ::CloseHandle(handle_);
  }

  HANDLE get() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }

 private:
  HANDLE handle_ = nullptr;
};

}  // namespace tolm::test
