#include "os/ExecutablePath.h"

#include <unistd.h>
#include <climits>

namespace os {

std::string ExecutablePath() {
  std::string path(PATH_MAX, '\0');
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  path.resize(length <= 0 ? 0 : static_cast<std::size_t>(length));
  return path;
}

std::string ExecutableDirectory() {
  const std::string path = ExecutablePath();
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

}  // namespace os
