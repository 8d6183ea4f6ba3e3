// The transport's own work on one message: into bytes, out of bytes, through the queue of a connection.

#include "Inputs.h"
#include "Path.h"
#include "TolmLPCServer/LpcOptions.h"
#include "os/LocalStream.h"
#include "wire/FrameReader.h"
#include "wire/SendQueue.h"

namespace instructions {
namespace {

using lpc::wire::FrameType;

constexpr std::size_t kTimes = 5000;

/// Takes everything at once and keeps nothing.
class Swallower final : public os::Stream {
 public:
  Swallower() : os::Stream(0) {}
  os::IoResult Read(const os::MutableBuffer*, std::size_t) override { return {os::IoStatus::kWouldBlock}; }
  os::IoResult Write(const os::ConstBuffer* buffers, std::size_t count) override {
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < count; ++i) bytes += buffers[i].size;
    return {os::IoStatus::kDone, bytes};
  }
  os::StreamState Wait(bool, int) override { return {}; }
  void Shutdown() noexcept override {}
  os::PeerIdentity Peer() const override { return {}; }
};

class LastMessage final : public lpc::wire::FrameSink {
 public:
  void OnControlFrame(const lpc::wire::FrameHeader&, std::string_view) override {}
  void OnMessage(lpc::wire::InboundMessage&& message) override {
    last = std::move(message);
    ++count;
  }
  lpc::wire::InboundMessage last;
  std::size_t count = 0;
};

std::size_t Encode(const LpcParams& params) {
  const auto message = WireMessage(FrameType::kRequest, 7, params, Body());
  std::size_t bytes = 0;
  const std::size_t times = Count(kTimes, [&](std::size_t) {
    std::string head = lpc::wire::EncodeHead(message, lpc::wire::kHeaderSize);
    lpc::wire::FrameHeader header;
    header.payload_size = static_cast<std::uint32_t>(head.size() - lpc::wire::kHeaderSize + Body().size());
    header.type = message.type;
    header.message_id = message.id;
    const lpc::wire::HeaderBytes header_bytes = lpc::wire::EncodeHeader(header);
    std::copy(header_bytes.begin(), header_bytes.end(), head.begin());
    bytes = head.size();
  });
  Expect(bytes + Body().size() == FrameOf(FrameType::kRequest, 7, params, Body()).size(),
         "the encoded head's size");
  return times;
}

std::size_t Decode(const LpcParams& params) {
  const std::string frame = FrameOf(FrameType::kRequest, 7, params, Body());
  const lpc::Options options;
  lpc::wire::FrameReader reader(options);
  reader.AcceptMessages();
  LastMessage sink;
  const std::size_t times = Count(kTimes, [&](std::size_t) { reader.Feed(frame, sink); });
  Expect(sink.count >= times && sink.last.params == params && sink.last.body == Body(),
         "the decoded message");
  return times;
}

std::size_t Send(const LpcParams& params) {
  const auto message = WireMessage(FrameType::kRequest, 7, params, Body());
  Swallower stream;
  const lpc::Options options;
  lpc::wire::SendQueue queue(stream, options);
  std::size_t sent = 0;
  const std::size_t times = Count(kTimes, [&](std::size_t) {
    sent += queue.Send(message) == lpc::wire::SendQueue::Outcome::kSent ? 1 : 0;
  });
  Expect(sent >= times, "everything sent");
  return times;
}

}  // namespace

std::vector<Path> WirePaths() {
  return {
      {"encode-64", [] { return Encode(NoParams()); }},
      {"encode-params", [] { return Encode(ThreeParams()); }},
      {"decode-64", [] { return Decode(NoParams()); }},
      {"decode-params", [] { return Decode(ThreeParams()); }},
      {"send-64", [] { return Send(NoParams()); }},
      {"send-params", [] { return Send(ThreeParams()); }},
  };
}

}  // namespace instructions
