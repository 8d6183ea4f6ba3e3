#include "LocalText.h"

namespace Tolm::Base {

// Narrow texts are UTF-8 here, or what nobody can tell from it.
std::string LocalToUtf8(const std::string& local) {
  return local;
}

std::string Utf8ToLocal(const std::string& utf8) {
  return utf8;
}

}  // namespace Tolm::Base
