// Any bytes, in any pieces: the reader of frames neither crashes nor keeps more than it was given, and
// finds the same whatever the pieces are.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "wire/FrameReader.h"

namespace {

class Recorder final : public lpc::wire::FrameSink {
 public:
  void OnControlFrame(const lpc::wire::FrameHeader& header, std::string_view payload) override {
    found += 'c' + std::to_string(static_cast<int>(header.type)) + std::string(payload);
    lpc::wire::Hello hello;
    lpc::wire::DecodeHello(hello, payload);
    lpc::wire::Notice notice;
    lpc::wire::DecodeNotice(notice, payload);
  }
  void OnMessage(lpc::wire::InboundMessage&& message) override {
    found += 'm' + std::to_string(message.id) + message.dst_id + message.src_id + message.body;
    for (const auto& [key, value] : message.params) found += key + value;
  }
  std::string found;
};

lpc::Options SmallLimits() {
  lpc::Options options;
  options.max_message_bytes = 64 << 10;
  options.max_params = 16;
  return options;
}

std::string Read(std::string_view bytes, std::size_t piece, bool direct) {
  const lpc::Options options = SmallLimits();
  lpc::wire::FrameReader reader(options);
  reader.AcceptMessages();
  Recorder recorder;
  while (!bytes.empty()) {
    const auto fill = [&bytes](lpc::wire::FrameReader::Place place) {
      const std::size_t part = bytes.copy(place.data, place.size);
      bytes.remove_prefix(part);
      return part;
    };
    if (direct && reader.ReadToPlace(fill, recorder)) continue;
    const std::string_view part = bytes.substr(0, piece);
    bytes.remove_prefix(part.size());
    if (!reader.Feed(part, recorder)) break;
  }
  if (reader.held_bytes() > 2 * options.max_message_bytes) std::abort();
  return recorder.found + '|' + reader.violation();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::string whole = Read(bytes, bytes.size(), false);
  if (Read(bytes, 1, false) != whole || Read(bytes, 7, true) != whole) std::abort();
  return 0;
}
