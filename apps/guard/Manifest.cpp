#include "Manifest.h"

#include <algorithm>
#include <cctype>

#include "TolmBase/Utf8Check.h"

namespace guard {
namespace {

constexpr std::size_t kMaxIdBytes = 128;

/// What some system takes for a separator, a wildcard, a stream or nothing printable.
bool IsForbidden(char c) {
  constexpr std::string_view kForbidden = "/\\:*?\"<>|";
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f || kForbidden.find(c) != std::string_view::npos;
}

std::string LowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

std::string WhyNotAPluginId(const std::string& id) {
  if (id.empty()) return "a plugin's id must not be empty";
  if (id.size() > kMaxIdBytes) return "a plugin's id must not be longer than 128 bytes";
  if (id.find("..") != std::string::npos) return "a plugin's id must not hold \"..\"";
  if (id.front() == '.' || id.back() == '.' || id.front() == ' ' || id.back() == ' ') {
    return "a plugin's id must not begin or end with a dot or a blank";
  }
  if (std::any_of(id.begin(), id.end(), IsForbidden)) {
    return "a plugin's id must not hold separators, control characters or any of :*?\"<>|";
  }
  // It stands in texts for the frame, which have to be UTF-8.
  if (!Tolm::Base::IsUtf8(id)) return "a plugin's id must be UTF-8";
  // guard.log, guard.1.log and so on are the guard's own.
  const std::string lower = LowerCase(id);
  if (lower == "guard" || lower.starts_with("guard.")) {
    return "the name \"guard\" is kept for the guard's own log";
  }
  return {};
}

}  // namespace guard
