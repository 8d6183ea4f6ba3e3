#pragma once

// What the targets share: the fuzzer's bytes taken apart, and what must hold whatever they are.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace fuzz {

/// Ends the process when a property of the target does not hold; the fuzzer then keeps the input.
inline void Require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

/// Takes values off the front of an input; empty or 0 when there are no more.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return rest_.empty(); }
  unsigned Byte() {
    if (rest_.empty()) return 0;
    const auto byte = static_cast<unsigned char>(rest_.front());
    rest_.remove_prefix(1);
    return byte;
  }
  /// Up to the next line feed, which is taken as well.
  std::string Line() {
    const std::size_t end = std::min(rest_.find('\n'), rest_.size());
    const std::string line(rest_.substr(0, end));
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
    return line;
  }
  std::string Bytes(std::size_t most) {
    const std::string bytes(rest_.substr(0, most));
    rest_.remove_prefix(bytes.size());
    return bytes;
  }
  std::string Rest() { return Bytes(rest_.size()); }

 private:
  std::string_view rest_;
};

/// `text` with a long run of letters in the place of each of the first bytes 2, which small inputs would
/// never have.
inline std::string WithLongRuns(std::string_view text) {
  constexpr std::size_t kRun = 1100;
  constexpr int kMostRuns = 8;
  std::string with_runs;
  int runs = 0;
  for (const char c : text) {
    if (c == '\2' && runs++ < kMostRuns) {
      with_runs.append(kRun, 'A');
    } else {
      with_runs += c;
    }
  }
  return with_runs;
}

}  // namespace fuzz
