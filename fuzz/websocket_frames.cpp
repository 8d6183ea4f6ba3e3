// A client's bytes, in pieces of any size: what comes out does not depend on the pieces, no frame exceeds the
// limit, and a fault is the end.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "FrameReader.h"

namespace {

constexpr std::uint32_t kMaxPayload = 4096;

class Listener final : public Tolm::Net::FrameReader::Receiver {
 public:
  std::string heard;

  void OnData(int opcode, bool fin, const char* payload, std::uint32_t len) override {
    if (len > kMaxPayload) std::abort();
    heard += "data " + std::to_string(opcode) + (fin ? " last " : " more ");
    if (len > 0) heard.append(payload, len);
  }
  void OnPing(std::string_view payload) override {
    if (payload.size() > 125) std::abort();
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

std::string Hear(const char* bytes, std::size_t size, std::size_t piece) {
  Listener listener;
  Tolm::Net::FrameReader reader(listener, kMaxPayload);
  for (std::size_t at = 0; at < size && !listener.IsOver(); at += piece) {
    if (const auto fault = reader.Read(bytes + at, std::min(piece, size - at))) {
      return listener.heard + "fault " + std::to_string(fault->code);
    }
  }
  return listener.heard;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const auto* const bytes = reinterpret_cast<const char*>(data + 1);
  if (Hear(bytes, size - 1, size - 1) != Hear(bytes, size - 1, 1U + data[0])) std::abort();
  return 0;
}
