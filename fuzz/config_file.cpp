// The frame's own reader and writer of "LpcFrame.xml": what it reads is in range, and what it has written
// over any file it reads again.

#include "net/ConfigXmlReader.h"
#include "support/HostFolder.h"
#include "support/Input.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::BeginInOwnFolder();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto type = static_cast<std::int32_t>(input.Byte() % 2);
  const auto port = static_cast<std::int32_t>(input.Byte() << 8 | input.Byte());
  const std::string text = input.Rest();
  fuzz::OwnFolder().Write("LpcFrame.xml", text);

  TolmLPCFrame::CLocalXmlReader reader;
  fuzz::Require(reader.ReadLocalXml(type) == !text.empty(), "a file that holds something can be read");
  if (!text.empty()) {
    TolmLPCFrame::LocalXmlConfig config = reader.Config();
    config.port = port;
    // Blanks at its ends, and what no document may hold, are not carried through.
    const auto is_plain = [](char c) { return c > ' ' && c < 0x7F; };
    const std::string& protocol = config.protocol_type;
    const bool plain = std::all_of(protocol.begin(), protocol.end(), is_plain);
    fuzz::Require(reader.SetConfigXml(config, type), "such a file can be written");
    TolmLPCFrame::CLocalXmlReader again;
    fuzz::Require(again.ReadLocalXml(type) && (!plain || again.Config().port == port),
                  "the port is read again");
    fuzz::Require(!plain || again.Config().protocol_type == protocol, "so is the protocol");
  }
  return 0;
}
