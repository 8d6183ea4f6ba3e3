// Any path: it is normalised once and for all, as the steps on the way say, and names one event.

#include <optional>
#include <vector>

#include "common/AgentNames.h"
#include "support/Input.h"

namespace {

/// The folders on the way, one by one.
std::optional<std::string> WalkedPath(const std::string& path) {
  std::vector<std::string> folders;
  std::string folder;
  for (const char c : path + "\\") {
    if (c != '\\') {
      folder += c;
      continue;
    }
    if (folder == "..") {
      if (folders.empty()) return std::nullopt;
      folders.pop_back();
    } else if (!folder.empty()) {
      folders.push_back(folder);
    }
    folder.clear();
  }
  if (folders.empty()) return std::nullopt;
  std::string joined;
  for (const std::string& one : folders) joined += '\\' + one;
  return joined.substr(1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string before(reinterpret_cast<const char*>(data), size);
  std::string path = before;
  const bool can_be = TolmLPCFrame::NormalizePath(path);
  const auto walked = WalkedPath(before);
  fuzz::Require(can_be == walked.has_value() && path == walked.value_or(before),
                "it ends where the steps lead");
  fuzz::Require(TolmLPCFrame::AgentEventName(before) == TolmLPCFrame::AgentEventName(path),
                "both name the same event");
  fuzz::Require(TolmLPCFrame::AgentEventName(path).substr(7).find('\\') == std::string::npos,
                "an event's name has slashes behind its scope");
  const std::string once = path;
  fuzz::Require(TolmLPCFrame::NormalizePath(path) == can_be && path == once, "once is enough");
  return 0;
}
