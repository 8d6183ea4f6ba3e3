#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace TolmLPCFrame {

/// What the last "<name>=..." of `query` holds, which stood behind the "?" of a url; empty without one.
inline std::string_view QueryParameter(std::string_view query, std::string_view name) {
  std::string_view value;
  while (!query.empty()) {
    const std::string_view piece = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(piece.size() + 1, query.size()));
    const std::size_t equals = piece.find('=');
    if (equals != std::string_view::npos && piece.substr(0, equals) == name) value = piece.substr(equals + 1);
  }
  return value;
}

}  // namespace TolmLPCFrame
