// Whatever is split can be joined again, and paths are normalised once and for all.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/AgentNames.h"
#include "os/HiddenProcess.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  const auto arguments = os::SplitCommandLine(text);
  // The first token has rules of its own: it cannot hold a quote.
  if (!arguments.empty() && arguments.front().find('"') == std::string::npos &&
      os::SplitCommandLine(os::JoinCommandLine(arguments)) != arguments) {
    std::abort();
  }

  const std::string before = text;
  if (!TolmLPCFrame::NormalizePath(text)) {
    if (text != before) std::abort();
    return 0;
  }
  const std::string once = text;
  if (text.empty() || !TolmLPCFrame::NormalizePath(text) || text != once) std::abort();
  return 0;
}
