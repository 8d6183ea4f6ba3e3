#pragma once

#include <cstdint>
#include <string>

namespace TolmLPCFrame {

/// What "LpcFrame.xml" in the folder of the host's executable says.
struct LocalXmlConfig {
  std::int32_t port = 0;
  std::string protocol_type;  ///< carried through and never interpreted
};

/// Reads and writes "LpcFrame.xml": a root element Config with ServerPort, ClientPort and ProtocolType.
/// Frame type 1 has its port in ClientPort, every other one in ServerPort. For one thread at a time.
class CLocalXmlReader {
 public:
  /// Fills Config(). False when the file cannot be read or is empty; what is not well-formed XML reads
  /// as port -1 without a protocol type.
  bool ReadLocalXml(std::int32_t frame_type);

  /// Replaces the file's content by `config`. False when there is no file that can be read, or it
  /// cannot be written.
  bool SetConfigXml(const LocalXmlConfig& config, std::int32_t frame_type);

  const LocalXmlConfig& Config() const { return config_; }

 private:
  LocalXmlConfig config_;
};

}  // namespace TolmLPCFrame
