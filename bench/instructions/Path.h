#pragma once

// A hot path with a fixed input, and how it is counted: once it is warm, so many times, under callgrind,
// which counts only between the two marks. Without callgrind the marks are nothing, and the path just runs.

#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace instructions {

struct Path {
  const char* name;
  /// Runs it, and says how many operations were counted.
  std::size_t (*run)();
};

std::vector<Path> WirePaths();
std::vector<Path> RecordPaths();
std::vector<Path> TextPaths();
std::vector<Path> FramePaths();

/// A path that does something else than it should counts nothing.
inline void Expect(bool fulfilled, const std::string& what) {
  if (!fulfilled) throw std::runtime_error("not as expected: " + what);
}

/// `operations` is called with how many operations it is to do.
template <typename Operations>
std::size_t CountTogether(std::size_t times, Operations&& operations) {
  operations(std::max<std::size_t>(times / 4, 100));
  CALLGRIND_START_INSTRUMENTATION;
  operations(times);
  CALLGRIND_STOP_INSTRUMENTATION;
  return times;
}

/// `operation` is called with a number that counts up.
template <typename Operation>
std::size_t Count(std::size_t times, Operation&& operation) {
  return CountTogether(times, [&](std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      operation(i);
      // The compiler must not see through the loop.
      asm volatile("" : : : "memory");
    }
  });
}

}  // namespace instructions
