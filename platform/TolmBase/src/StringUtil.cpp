#include "TolmBase/StringUtil.h"

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include "LocalText.h"

namespace Tolm::Base::StringUtil {
namespace {

std::atomic<bool> g_log_masking{true};

}  // namespace

std::string Local2UTF8(const std::string& local) {
  return LocalToUtf8(local);
}

std::string LowerCase(const std::string& text) {
  std::string lower = text;
  // Not std::tolower: the host's locale must not decide which URLs are equal.
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
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

void SetLogMasking(bool on) {
  g_log_masking.store(on, std::memory_order_relaxed);
}

}  // namespace Tolm::Base::StringUtil
