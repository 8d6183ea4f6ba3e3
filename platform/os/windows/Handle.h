#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <string>
#include <utility>

namespace os {

/// Owns a kernel object's handle.
class Handle {
 public:
  Handle() = default;
  /// What functions give that failed, null and INVALID_HANDLE_VALUE, is no handle.
  explicit Handle(HANDLE handle) : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
  Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Handle& operator=(Handle&& other) noexcept {
    if (this != &other) {
      Close();
      handle_ = std::exchange(other.handle_, nullptr);
    }
    return *this;
  }
  ~Handle() { Close(); }

  HANDLE get() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }

 private:
  void Close() {
    if (handle_ != nullptr) ::CloseHandle(handle_);
    handle_ = nullptr;
  }

  HANDLE handle_ = nullptr;
};

/// Each byte as one wide character: these texts are ASCII by agreement, and no code page is asked.
inline std::wstring Widen(const std::string& text) {
  std::wstring wide;
  wide.reserve(text.size());
  for (const char c : text) wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
  return wide;
}

}  // namespace os
