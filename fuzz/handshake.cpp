// Any payload as one of a handshake, or of a refusal: what was understood is written again as it came, but
// for what a newer version puts behind it.

#include <algorithm>

#include "support/Input.h"
#include "wire/Frame.h"

namespace {

using fuzz::Require;

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

bool IsId(const std::string& id) {
  return !id.empty() && id.size() <= 255 && id != "0" && std::none_of(id.begin(), id.end(), IsControl);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string payload(reinterpret_cast<const char*>(data), size);
  lpc::wire::Hello hello;
  if (DecodeHello(hello, payload)) {
    Require(payload.starts_with(EncodeHello(hello)), "a HELLO is written as it was read");
    Require(lpc::wire::IsPeerId(hello.id) == IsId(hello.id), "an id is judged by its letters");
  }
  Require(lpc::wire::IsPeerId(payload) == IsId(payload), "an id is judged by its letters");
  lpc::wire::Welcome welcome;
  Require(DecodeWelcome(welcome, payload) == (size >= 14), "a WELCOME has its fields");
  if (size >= 14) Require(payload.starts_with(EncodeWelcome(welcome)), "a WELCOME is written as it was read");
  lpc::wire::Notice notice;
  if (DecodeNotice(notice, payload)) {
    Require(std::none_of(notice.reason.begin(), notice.reason.end(), IsControl), "a reason is for log lines");
    lpc::wire::Notice again;
    Require(DecodeNotice(again, EncodeNotice(notice)), "a notice can be read again");
    Require(again.code == notice.code && again.reason == notice.reason.substr(0, 512), "it is the same");
  }
  if (size >= lpc::wire::kHeaderSize) {
    const auto bytes = EncodeHeader(lpc::wire::DecodeHeader(payload.data()));
    Require(payload.starts_with(std::string(bytes.data(), bytes.size())),
            "a header is written as it was read");
  }
  return 0;
}
