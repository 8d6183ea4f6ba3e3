#include "LocalText.h"

#include <windows.h>

#include <algorithm>
#include <limits>

namespace Tolm::Base {
namespace {

/// What the system converts at once; it counts in int.
int Length(std::size_t size) {
  return static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
}

std::string Convert(const std::string& text, UINT from, UINT to, DWORD flags) {
  const int length = Length(text.size());
  const int wide_length = ::MultiByteToWideChar(from, 0, text.data(), length, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(wide_length), L'\0');
  ::MultiByteToWideChar(from, 0, text.data(), length, wide.data(), wide_length);
  const int size = ::WideCharToMultiByte(to, flags, wide.data(), wide_length, nullptr, 0, nullptr, nullptr);
  std::string converted(static_cast<std::size_t>(size), '\0');
  ::WideCharToMultiByte(to, flags, wide.data(), wide_length, converted.data(), size, nullptr, nullptr);
  return converted;
}

bool IsUtf8Local() {
  return ::GetACP() == CP_UTF8;
}

}  // namespace

std::string LocalToUtf8(const std::string& local) {
  return IsUtf8Local() ? local : Convert(local, CP_ACP, CP_UTF8, 0);
}

std::string Utf8ToLocal(const std::string& utf8) {
  // A letter that only resembles the right one would name another folder.
  return IsUtf8Local() ? utf8 : Convert(utf8, CP_UTF8, CP_ACP, WC_NO_BEST_FIT_CHARS);
}

}  // namespace Tolm::Base
