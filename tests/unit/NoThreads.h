#pragma once

namespace tolm::test {

/// While it lives, no thread can be made. At most one at a time. Twin files: posix/NoThreads.cpp and
/// windows/NoThreads.cpp.
class NoThreads {
 public:
  NoThreads();
  ~NoThreads();
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;
};

}  // namespace tolm::test
