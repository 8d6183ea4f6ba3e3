#include "net/ConfigXmlReader.h"

#include <memory>

#include "TolmBase/FileUtil.h"
#include "TolmBase/LogLine.h"
#include "TolmProto/XmlProto.h"
#include "common/Constants.h"
#include "net/WholeFile.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelInfo;

namespace {

constexpr char kProtocolTypePath[] = "/Config/ProtocolType";

std::string ConfigPath() {
  return Tolm::Base::FileUtil::GetCurExeDirUtf8() + kConfigFileName;
}

const char* PortPath(std::int32_t frame_type) {
  return frame_type == kFrameTypeWithAgent ? "/Config/ClientPort" : "/Config/ServerPort";
}

}  // namespace

bool CLocalXmlReader::ReadLocalXml(std::int32_t frame_type) {
  const std::string path = ConfigPath();
  TOLM_LOG(kLogLevelInfo, kTagInfo, "ReadFile path[%s]", path.c_str());
  std::string content;
  if (!ReadFileText(content, path)) {
    TOLM_LOG(kLogLevelError, kTagError, "ReadFile failed path[%s]", path.c_str());
    return false;
  }
  const auto xml = std::make_shared<proto::CXmlProto>();
  xml->set_str(content);  // what does not parse reads as the defaults
  config_.port = xml->get_int_v(PortPath(frame_type), -1);
  config_.protocol_type = xml->get_v(kProtocolTypePath, "");
  return true;
}

bool CLocalXmlReader::SetConfigXml(const LocalXmlConfig& config, std::int32_t frame_type) {
  const std::string path = ConfigPath();
  std::string old_content;  // not needed: a file that is not there, or empty, is not made
  if (!ReadFileText(old_content, path)) {
    TOLM_LOG(kLogLevelError, kTagError, "ReadFile  failed path[%s]", path.c_str());
    return false;
  }
  const auto xml = std::make_shared<proto::CXmlProto>();
  xml->set_v(PortPath(frame_type), config.port);
  xml->set_v(kProtocolTypePath, config.protocol_type);
  if (!WriteFileText(path, xml->get_str(0))) {
    TOLM_LOG(kLogLevelError, kTagError, "WriteFile failed path[%s]", path.c_str());
    return false;
  }
  return true;
}

}  // namespace TolmLPCFrame
