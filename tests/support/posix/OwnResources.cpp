#include "support/OwnResources.h"

#include <sys/resource.h>

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

double ProcessorSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace tolm::test
