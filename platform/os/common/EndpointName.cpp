#include "os/LocalStream.h"

#include <algorithm>

namespace os {
namespace {

constexpr std::size_t kMaxNameLength = 64;

}  // namespace

bool IsEndpointName(const std::string& name) {
  if (name.empty() || name.size() > kMaxNameLength || name.front() == '.') return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    return plain || c == '.' || c == '_' || c == '-';
  });
}

}  // namespace os
