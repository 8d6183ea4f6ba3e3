// Any "LpcFrame.xml", and any file in its place: the guard comes to the port that the frame comes to, in both
// roles.

#include "ConfigPort.h"

#include "net/ConfigXmlReader.h"
#include "support/HostFolder.h"
#include "support/Input.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::BeginInOwnFolder();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  // Which of the two files is there, and what it holds.
  const unsigned files = input.Byte() % 4;
  const std::string text = input.Rest();
  const auto path = fuzz::OwnFolder().Write("LpcFrame.xml", files == 1 ? "" : text);
  const auto companion =
      fuzz::OwnFolder().Write("LpcFrame.data", files == 1 ? text : "<Config><ClientPort>1</ClientPort>");
  if (files == 2) std::filesystem::remove(companion);
  if (files == 3) std::filesystem::remove(path);

  constexpr std::int32_t kWithAgent = 1;
  for (const std::int32_t type : {0, kWithAgent}) {
    TolmLPCFrame::CLocalXmlReader frame;
    const bool read = frame.ReadLocalXml(type);
    std::string why;
    const std::uint16_t port =
        guard::ReadConfigPort(path, type == kWithAgent ? guard::Role::kClient : guard::Role::kServer, why);
    fuzz::Require(port == (read ? static_cast<std::uint16_t>(frame.Config().port) : 0),
                  "guard and frame come to the same port");
    fuzz::Require((port == 0) == !why.empty(), "why there is no port is told");
  }
  return 0;
}
