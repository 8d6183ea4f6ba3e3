// Any manifest's text: it is a document, or the place where it stops being one lies in it.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "PositionedJson.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  guard::JsonValue value;
  guard::Position where;
  std::string why;
  if (guard::ReadJson(text, 8, value, where, why)) return 0;
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  if (why.empty() || where.line == 0 || where.line > lines) std::abort();
  return 0;
}
