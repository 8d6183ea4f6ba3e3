// Any bytes, in any pieces: the reader of frames, the same at both ends, keeps no more than it was given,
// keeps to its limits, and finds the same whatever the pieces are. A message that it found is found again
// when it is sent.

#include <string>
#include <string_view>
#include <vector>

#include "TolmLPCServer/LpcError.h"
#include "support/Input.h"
#include "wire/FrameReader.h"

namespace {

using fuzz::Require;
using lpc::wire::InboundMessage;

class Recorder final : public lpc::wire::FrameSink {
 public:
  void OnControlFrame(const lpc::wire::FrameHeader& header, std::string_view payload) override {
    Require(payload.size() <= lpc::wire::kMaxControlPayload, "a control frame is short");
    found += 'c' + std::to_string(static_cast<int>(header.type)) + std::string(payload);
  }
  void OnMessage(InboundMessage&& message) override {
    found += 'm' + std::to_string(message.id) + message.dst_id + message.src_id + message.body;
    for (const auto& [key, value] : message.params) found += key + value;
    messages.push_back(std::move(message));
  }
  std::string found;
  std::vector<InboundMessage> messages;
};

lpc::Options SmallLimits() {
  lpc::Options options;
  options.max_message_bytes = 64 << 10;
  options.max_params = 16;
  options.max_queue_bytes = 16 << 10;
  return options;
}
const lpc::Options kLimits = SmallLimits();

void Read(Recorder& recorder, std::string_view bytes, std::size_t piece, bool direct) {
  lpc::wire::FrameReader reader(kLimits);
  reader.AcceptMessages();
  const std::size_t given = bytes.size();
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
  Require(reader.held_bytes() <= given, "no more is held than was given");
  Require(reader.violation().empty() == (reader.violation_code() == lpc::kOk), "a violation has a code");
  recorder.found += '|' + reader.violation();
}

std::string Sent(const InboundMessage& message) {
  lpc::wire::OutgoingMessage outgoing;
  outgoing.type = message.type;
  outgoing.id = message.id;
  outgoing.time_out_ms = message.time_out_ms;
  outgoing.dst_id = message.dst_id;
  outgoing.src_id = message.src_id;
  outgoing.params = &message.params;
  outgoing.body.bytes = message.body;
  Require(CheckLimits(outgoing, kLimits.max_message_bytes, kLimits.max_params) == lpc::kOk,
          "limits are kept");
  std::string frame;
  AppendFrame(frame, outgoing);
  Require(frame.size() == FrameSize(outgoing), "a frame is as long as is said");
  return frame;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  Recorder whole;
  Read(whole, bytes, bytes.size(), false);
  Recorder by_byte;
  Read(by_byte, bytes, 1, false);
  Recorder to_place;
  Read(to_place, bytes, 7, true);
  Require(by_byte.found == whole.found && to_place.found == whole.found, "pieces do not matter");
  for (const InboundMessage& message : whole.messages) {
    Recorder again;
    Read(again, Sent(message), 1 << 20, false);
    Require(again.messages.size() == 1 && again.messages.front().params == message.params &&
                again.messages.front().body == message.body,
            "what was read can be sent and read again");
  }
  return 0;
}
