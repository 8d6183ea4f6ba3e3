#include "os/OpenToRead.h"

namespace os {

std::FILE* OpenToRead(const std::string& path) {
  return std::fopen(path.c_str(), "rbe");  // e: not for children
}

}  // namespace os
