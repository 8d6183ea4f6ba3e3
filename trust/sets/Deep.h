#pragma once

#include <string>
#include <string_view>

namespace trust {

/// How deep the deepest documents are nested.
inline constexpr int kDeep = 100'000;

inline std::string Times(int count, std::string_view part) {
  std::string text;
  for (int i = 0; i < count; ++i) text += part;
  return text;
}

}  // namespace trust
