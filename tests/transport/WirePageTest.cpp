// The bytes that the wire's page shows are the bytes that go over the wire.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "RawPeer.h"
#include "wire/Frame.h"
#include "wire/Message.h"

namespace tolm::test {
namespace {

using lpc::wire::FrameType;

// The bytes below "<!-- example: name -->": lines of an offset, hexadecimal bytes and, behind two blanks or
// more, what they mean.
std::string Example(const std::string& name) {
  std::ifstream page(TOLM_WIRE_PAGE);
  std::string bytes;
  bool found = false;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line == "<!-- example: " + name + " -->") found = true;
    if (!found) continue;
    if (line.starts_with("```")) {
      if (inside) return bytes;
      inside = true;
      continue;
    }
    if (!inside) continue;
    std::istringstream words(line.substr(6, line.find("  ", 6) - 6));
    for (std::string word; words >> word;) {
      bytes += static_cast<char>(std::strtoul(word.c_str(), nullptr, 16));
    }
  }
  return {};
}

TEST(WirePage, ShowsAHandshake) {
  lpc::wire::Hello hello;
  hello.id = "cam";
  EXPECT_EQ(Example("hello"), FrameBytes(FrameType::kHello, lpc::wire::EncodeHello(hello)));
  lpc::wire::Welcome welcome;
  welcome.max_message_bytes = lpc::Options().max_message_bytes;
  EXPECT_EQ(Example("welcome"), FrameBytes(FrameType::kWelcome, lpc::wire::EncodeWelcome(welcome)));
}

TEST(WirePage, ShowsARequestAndItsReply) {
  const LpcParams url = {{"url", "/v1"}};
  lpc::wire::OutgoingMessage message;
  message.dst_id = "0";
  message.src_id = "cam";
  message.params = &url;
  message.body = {"hi"};
  message.time_out_ms = 5000;
  const std::string request = lpc::wire::EncodeHead(message, 0) + std::string(message.body.bytes);
  EXPECT_EQ(Example("request"), FrameBytes(FrameType::kRequest, request, 3, lpc::wire::kFlagWaiting));
  const LpcParams none;
  message.dst_id = "cam";
  message.src_id = "0";
  message.params = &none;
  message.body = {"ok"};
  message.time_out_ms = 0;
  const std::string reply = lpc::wire::EncodeHead(message, 0) + std::string(message.body.bytes);
  EXPECT_EQ(Example("reply"), FrameBytes(FrameType::kReply, reply, 3));
}

TEST(WirePage, ShowsAGoodbye) {
  EXPECT_EQ(Example("goodbye"),
            FrameBytes(FrameType::kGoodbye, lpc::wire::EncodeNotice({lpc::kOk, "the frame stops"})));
}

}  // namespace
}  // namespace tolm::test
