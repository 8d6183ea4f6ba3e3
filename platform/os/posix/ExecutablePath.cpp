#include "os/ExecutablePath.h"

#include <unistd.h>
#include <climits>

namespace os {

std::string ExecutableDirectory() {
  std::string path(PATH_MAX, '\0');
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0) return {};
  path.resize(static_cast<std::size_t>(length));
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

}  // namespace os
