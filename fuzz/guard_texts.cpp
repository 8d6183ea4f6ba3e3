// Any text from the frame to the guard: it is one of the messages, or the reason why not is told.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "GuardMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  guard::FrameMessage message;
  std::string why;
  if (!guard::ParseFrameMessage(text, message, why) && why.empty()) std::abort();
  return 0;
}
