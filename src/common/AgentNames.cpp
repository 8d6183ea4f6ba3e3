#include "common/AgentNames.h"

#include <cstddef>
#include <string_view>
#include <system_error>
#include <vector>

#include "TolmBase/StringUtil.h"

namespace TolmLPCFrame {

bool NormalizePath(std::string& path) {
  std::vector<std::string_view> segments;
  for (std::string_view rest = path; !rest.empty();) {
    const std::string_view segment = rest.substr(0, rest.find('\\'));
    rest.remove_prefix(segment.size() < rest.size() ? segment.size() + 1 : rest.size());
    if (segment.empty()) continue;
    if (segment != "..") {
      segments.push_back(segment);
    } else if (segments.empty()) {
      return false;
    } else {
      segments.pop_back();
    }
  }
  if (segments.empty()) return false;

  std::string normalized;
  normalized.reserve(path.size());
  for (const std::string_view segment : segments) {
    if (!normalized.empty()) normalized += '\\';
    normalized += segment;
  }
  path.swap(normalized);
  return true;
}

std::string AgentEventName(const std::string& agent_path) {
  std::string name = agent_path;
  NormalizePath(name);  // a path that cannot be normalised names its event as it stands
  return "Global\\" + Tolm::Base::StringUtil::StringReplace(name, "\\", "/") + "-agent";
}

std::string GuardLockName(const std::filesystem::path& config) {
  std::error_code error;
  const std::filesystem::path canonical = std::filesystem::weakly_canonical(config, error);
  return "guard " + (error ? config : canonical).string();
}

}  // namespace TolmLPCFrame
