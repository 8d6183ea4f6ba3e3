#include "os/OpenToRead.h"

namespace os {

std::FILE* OpenToRead(const std::string& path) {
  std::FILE* file = nullptr;
  return ::fopen_s(&file, path.c_str(), "rb") == 0 ? file : nullptr;
}

}  // namespace os
