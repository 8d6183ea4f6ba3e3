#include "ConfigPort.h"

#include <fstream>
#include <limits>

#include "TolmProto/XmlProto.h"

namespace guard {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxFileBytes = 1048576;

/// Empty when there is nothing, or the file is longer than any configuration.
std::string ReadText(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(kMaxFileBytes + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.size() > kMaxFileBytes) text.clear();
  return text;
}

}  // namespace

std::uint16_t ReadConfigPort(const fs::path& config, Role role, std::string& why) {
  std::string text = ReadText(config);
  if (text.empty()) text = ReadText(fs::path(config).replace_extension(".data"));
  if (text.empty()) {
    why = config.string() + " is missing, empty, too long, or cannot be read";
    return 0;
  }
  proto::CXmlProto xml;
  if (!xml.set_str(text)) {
    why = config.string() + " is not XML";
    return 0;
  }
  const char* const path = role == Role::kClient ? "/Config/ClientPort" : "/Config/ServerPort";
  if (xml.get_cnt(path) == 0) {
    why = config.string() + " has no element " + path;
    return 0;
  }
  const int port = xml.get_int_v(path, 0);
  if (port <= 0 || port > std::numeric_limits<std::uint16_t>::max()) {
    why = config.string() + ": " + path + " is no port: \"" + xml.get_v(path, "").substr(0, 64) + "\"";
    return 0;
  }
  return static_cast<std::uint16_t>(port);
}

}  // namespace guard
