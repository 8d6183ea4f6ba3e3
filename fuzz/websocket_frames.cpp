// A client's bytes, in pieces of any size: what comes out does not depend on the pieces, no frame exceeds the
// limit, and a fault is the end. What is sent comes back as it was, once it is masked.

#include "FrameReader.h"
#include "FrameText.h"
#include "support/Input.h"

namespace {

using fuzz::Require;

constexpr std::uint32_t kMaxPayload = 128U * 1024;
constexpr int kBinary = 2;

class Listener final : public Tolm::Net::FrameReader::Receiver {
 public:
  std::string heard;
  std::string payloads;

  void OnData(int opcode, bool fin, const char* payload, std::uint32_t len) override {
    Require(len <= kMaxPayload, "no frame exceeds the limit");
    heard += "data " + std::to_string(opcode) + (fin ? " last " : " more ");
    if (len > 0) heard.append(payload, len);
    if (len > 0) payloads.append(payload, len);
  }
  void OnPing(std::string_view payload) override {
    Require(payload.size() <= 125, "a ping is short");
    heard += "ping ";
    heard += payload;
  }
  void OnClose(std::uint16_t code) override {
    heard += "close " + std::to_string(code);
    over_ = true;
  }
  bool IsOver() const override { return over_; }

 private:
  bool over_ = false;
};

std::string Hear(Listener& listener, std::string_view bytes, std::size_t piece) {
  Tolm::Net::FrameReader reader(listener, kMaxPayload);
  for (; !bytes.empty() && !listener.IsOver(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
    if (const auto fault = reader.Read(bytes.data(), std::min(piece, bytes.size()))) {
      return listener.heard + "fault " + std::to_string(fault->code);
    }
  }
  return listener.heard;
}

/// A frame of ours as a client would send it.
std::string Masked(int opcode, const std::string& payload, const std::string& mask) {
  const auto frame = Tolm::Net::MakeFrame(opcode, true, payload.data(), payload.size());
  std::string bytes(frame.bytes.get(), frame.size - payload.size());
  bytes[1] = static_cast<char>(bytes[1] | 0x80);
  bytes += mask;
  for (std::size_t i = 0; i < payload.size(); ++i) bytes += static_cast<char>(payload[i] ^ mask[i % 4]);
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t piece = 1U + input.Byte();
  const std::string bytes = input.Rest();
  Listener whole;
  const std::string heard = Hear(whole, bytes, bytes.size());
  Listener in_pieces;
  Require(Hear(in_pieces, bytes, piece) == heard, "pieces do not matter");

  // Long enough for every way to write a length.
  std::string payload = bytes;
  const std::size_t length = piece < 250 ? piece : 70000;
  while (!bytes.empty() && payload.size() < length) payload += bytes;
  std::string mask = bytes.substr(0, 4);
  mask.resize(4, 'm');
  Listener again;
  const std::string told = Hear(again, Masked(kBinary, payload, mask), piece * 37);
  const bool fits = payload.size() <= kMaxPayload;
  Require(fits == (told.find("fault") == std::string::npos || told.starts_with("data ")),
          "a frame of ours is in order");
  Require(!fits || again.payloads == payload, "what is sent comes back");
  return 0;
}
