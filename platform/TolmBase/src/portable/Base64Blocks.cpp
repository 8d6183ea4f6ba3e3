#include "../Base64Blocks.h"

namespace Tolm::Base::Encrypt {

std::size_t EncodeBlocks(char* /*text*/, const char* /*bytes*/, std::size_t /*count*/) {
  return 0;
}

std::size_t DecodeBlocks(char* /*bytes*/, const char* /*text*/, std::size_t /*count*/) {
  return 0;
}

}  // namespace Tolm::Base::Encrypt
