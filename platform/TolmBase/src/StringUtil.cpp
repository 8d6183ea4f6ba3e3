#include "TolmBase/StringUtil.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include "LocalText.h"

namespace Tolm::Base::StringUtil {
namespace {

std::atomic<bool> g_log_masking{true};

constexpr std::string_view kSidName = "sid";
constexpr std::size_t kSidBytes = 32;

constexpr char LowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (LowerAscii(c) >= 'a' && LowerAscii(c) <= 'f');
}

/// Whether the "=" at `equals` stands between a session id's name and its digits.
bool IsSidAt(std::string_view text, std::size_t equals) {
  if (equals < kSidName.size() || text.size() - equals <= kSidBytes) return false;
  const std::string_view name = text.substr(equals - kSidName.size(), kSidName.size());
  const std::string_view digits = text.substr(equals + 1, kSidBytes);
  return std::equal(name.begin(), name.end(), kSidName.begin(),
                    [](char c, char lower) { return LowerAscii(c) == lower; }) &&
         std::all_of(digits.begin(), digits.end(), IsHexDigit);
}

}  // namespace

std::string Local2UTF8(const std::string& local) {
  return LocalToUtf8(local);
}

std::string LowerCase(const std::string& text) {
  std::string lower = text;
  // Not std::tolower: the host's locale must not decide which URLs are equal.
  for (char& c : lower) c = LowerAscii(c);
  return lower;
}

std::string StringReplace(const std::string& text, const std::string& from, const std::string& to) {
  if (from.empty()) return text;
  std::string replaced;
  std::size_t begin = 0;
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, begin)) {
    replaced.append(text, begin, at - begin).append(to);
    begin = at + from.size();
  }
  return replaced.append(text, begin);
}

std::string str_fmt(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list measured;
  va_copy(measured, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  std::string text;
  if (length > 0) {
    text.resize(static_cast<std::size_t>(length));
    // printf's final NUL falls onto the string's own.
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  }
  va_end(arguments);
  return text;
}

std::string MaskForLog(const std::string& text, int /*mode*/, unsigned /*code_page*/) {
  if (!g_log_masking.load(std::memory_order_relaxed)) return text;
  return std::string(text.size(), '*');
}

std::string MaskSessionIds(std::string_view text) {
  std::string masked;
  masked.reserve(text.size());
  std::size_t done = 0;
  for (std::size_t equals = text.find('='); equals != std::string_view::npos;
       equals = text.find('=', equals + 1)) {
    if (!IsSidAt(text, equals)) continue;
    const std::size_t digits = equals + 1;
    masked += text.substr(done, digits - done);
    masked += MaskForLog(std::string(text.substr(digits, kSidBytes)), kMaskModeSessionId, kCodePageUtf8);
    done = digits + kSidBytes;
  }
  masked += text.substr(done);
  return masked;
}

void SetLogMasking(bool on) {
  g_log_masking.store(on, std::memory_order_relaxed);
}

}  // namespace Tolm::Base::StringUtil
