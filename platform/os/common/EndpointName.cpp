#include "os/LocalStream.h"

namespace os {
namespace {

constexpr std::size_t kMaxNameLength = 64;

}  // namespace

bool IsEndpointName(const std::string& name) {
  if (name.empty() || name.size() > kMaxNameLength || name.front() == '.') return false;
  for (const char c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!plain && c != '.' && c != '_' && c != '-') return false;
  }
  return true;
}

}  // namespace os
