#include "os/ExecutablePath.h"

#include "WideText.h"

namespace os {

std::string ExecutablePath() {
  constexpr DWORD kLongestPath = 32768;
  std::wstring path(kLongestPath, L'\0');
  const DWORD length = ::GetModuleFileNameW(nullptr, path.data(), kLongestPath);
  if (length == 0 || length == kLongestPath) return {};
  path.resize(length);
  return ToUtf8(path);
}

std::string ExecutableDirectory() {
  const std::string path = ExecutablePath();
  const std::size_t separator = path.rfind('\\');
  return separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
}

}  // namespace os
