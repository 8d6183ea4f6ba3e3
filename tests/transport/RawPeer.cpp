#include "RawPeer.h"

#include "support/Wait.h"
#include "wire/Message.h"

namespace tolm::test {

using lpc::wire::FrameType;

lpc::wire::Notice RawFrame::notice() const {
  lpc::wire::Notice notice;
  lpc::wire::DecodeNotice(notice, payload);
  return notice;
}

std::string FrameBytes(FrameType type, std::string_view payload, std::uint64_t message_id, std::uint8_t flags,
                       std::uint16_t stream) {
  lpc::wire::FrameHeader header;
  header.payload_size = static_cast<std::uint32_t>(payload.size());
  header.type = type;
  header.flags = flags;
  header.stream = stream;
  header.message_id = message_id;
  const auto bytes = lpc::wire::EncodeHeader(header);
  return std::string(bytes.data(), bytes.size()).append(payload);
}

std::string HelloBytes(const std::string& id) {
  lpc::wire::Hello hello;
  hello.id = id;
  return FrameBytes(FrameType::kHello, lpc::wire::EncodeHello(hello));
}

std::string MessageBytes(const std::string& body, const LpcParams& params, const std::string& dst_id,
                         const std::string& src_id) {
  lpc::wire::OutgoingMessage message;
  message.dst_id = dst_id;
  message.src_id = src_id;
  message.params = &params;
  message.body = {body};
  return lpc::wire::EncodeHead(message, 0) + body;
}

RawPeer::RawPeer(os::LocalTransport& transport, const std::string& name)
    : stream_(transport.Connect(name).value), ended_(stream_ == nullptr) {}

RawPeer::RawPeer(os::LocalTransport& transport, const FrameEnd& frame, const std::string& id)
    : RawPeer(transport) {
  const auto answer = Shake(id);
  if (!answer || answer->type() != FrameType::kWelcome) stream_.reset();
  if (stream_) frame.WaitStatus(id, "connected");
}

bool RawPeer::WriteSome(std::string_view& bytes) {
  const os::ConstBuffer buffer{bytes.data(), bytes.size()};
  const os::IoResult result = stream_->Write(&buffer, 1);
  if (result.status == os::IoStatus::kDone) bytes.remove_prefix(result.bytes);
  return result.status == os::IoStatus::kDone || result.status == os::IoStatus::kWouldBlock;
}

bool RawPeer::Write(std::string_view bytes) {
  bool open = stream_ != nullptr;
  WaitFor(
      [&] {
        while (open && !bytes.empty()) {
          const std::size_t before = bytes.size();
          open = WriteSome(bytes);
          if (bytes.size() == before) break;
        }
        return !open || bytes.empty();
      },
      std::chrono::milliseconds(kLong));
  return open && bytes.empty();
}

// Whether `size` bytes are there.
bool RawPeer::Fill(std::size_t size) {
  char buffer[64 * 1024];
  WaitFor(
      [&] {
        while (!ended_ && received_.size() < size) {
          const os::MutableBuffer room{buffer, sizeof buffer};
          const os::IoResult result = stream_->Read(&room, 1);
          if (result.status == os::IoStatus::kWouldBlock) return false;
          if (result.status == os::IoStatus::kDone) received_.append(buffer, result.bytes);
          ended_ = result.status != os::IoStatus::kDone;
        }
        return true;
      },
      std::chrono::milliseconds(kLong));
  return received_.size() >= size;
}

std::optional<RawFrame> RawPeer::Read() {
  if (!Fill(lpc::wire::kHeaderSize)) return std::nullopt;
  RawFrame frame;
  frame.header = lpc::wire::DecodeHeader(received_.data());
  const std::size_t size = lpc::wire::kHeaderSize + frame.header.payload_size;
  if (!Fill(size)) return std::nullopt;
  frame.payload = received_.substr(lpc::wire::kHeaderSize, frame.header.payload_size);
  received_.erase(0, size);
  return frame;
}

std::optional<RawFrame> RawPeer::ReadUntil(FrameType type) {
  auto frame = Read();
  while (frame && frame->type() != type) frame = Read();
  return frame;
}

std::optional<RawFrame> RawPeer::Shake(const std::string& id) {
  if (!connected() || !Write(HelloBytes(id))) return std::nullopt;
  return Read();
}

std::optional<lpc::wire::Notice> RawPeer::ReadReason() {
  std::optional<lpc::wire::Notice> reason;
  while (const auto frame = Read()) {
    if (frame->type() == FrameType::kGoodbye || frame->type() == FrameType::kRefuse) reason = frame->notice();
  }
  return ended_ ? reason : std::nullopt;
}

bool RawPeer::WaitEnd() {
  while (Read()) {
  }
  return ended_;
}

}  // namespace tolm::test
