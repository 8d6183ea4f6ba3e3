#include "ConfigPort.h"

#include <fstream>

#include "TolmProto/XmlProto.h"

namespace guard {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxFileBytes = 1048576;

/// Up to its last line feed, as the frame reads it; all of it when there is none. Empty when there is
/// nothing, or the file is longer than any configuration.
std::string ReadText(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(kMaxFileBytes + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.size() > kMaxFileBytes) text.clear();
  if (const std::size_t last = text.rfind('\n'); last != std::string::npos) text.resize(last + 1);
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
  // Read as the frame reads it, so that both come to the same port, whatever the file says.
  proto::CXmlProto xml;
  xml.set_str(text);
  const char* const path = role == Role::kClient ? "/Config/ClientPort" : "/Config/ServerPort";
  const auto port = static_cast<std::uint16_t>(xml.get_int_v(path, -1));
  if (port == 0) why = config.string() + ": " + path + " says that there is no port";
  return port;
}

}  // namespace guard
