#include "support/OwnResources.h"

#include <filesystem>
#include <iterator>

namespace tolm::test {
namespace {

long EntriesOf(const char* directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<long>(std::distance(begin(entries), end(entries)));
}

}  // namespace

const long kDescriptorsOfLocks = 0;

long OpenDescriptors() {
  return EntriesOf("/proc/self/fd");
}

long RunningThreads() {
  return EntriesOf("/proc/self/task");
}

}  // namespace tolm::test
