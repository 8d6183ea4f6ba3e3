#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "os/LocalStream.h"
#include "support/Input.h"
#include "wire/FrameReader.h"

namespace fuzz {

/// The bytes of a frame whose stated size is that of its payload.
inline std::string FrameBytes(lpc::wire::FrameType type, std::string_view payload, std::uint64_t id = 0) {
  lpc::wire::FrameHeader header;
  header.type = type;
  header.message_id = id;
  header.payload_size = static_cast<std::uint32_t>(payload.size());
  const auto bytes = EncodeHeader(header);
  return std::string(bytes.data(), bytes.size()).append(payload);
}

/// The fuzzer's end of a connection: puts any bytes on it, and looks at what comes back.
class OtherEnd final : public lpc::wire::FrameSink {
 public:
  explicit OtherEnd(std::unique_ptr<os::Stream> stream) : stream_(std::move(stream)) {
    reader_.AcceptMessages();
  }

  void OnControlFrame(const lpc::wire::FrameHeader& /*header*/, std::string_view /*payload*/) override {
    ++frames_;
  }
  void OnMessage(lpc::wire::InboundMessage&& message) override {
    ++frames_;
    if (message.type == lpc::wire::FrameType::kRequest) requests_.push_back(message.id);
  }

  /// How many frames have come.
  int frames() const { return frames_; }
  /// The id of the oldest request that has come and was not taken yet; 0 when there is none.
  std::uint64_t TakeRequest() {
    if (requests_.empty()) return 0;
    const std::uint64_t id = requests_.front();
    requests_.pop_front();
    return id;
  }

  /// Takes what has come, which must be in order. False when the connection has ended.
  bool TakeAnswers() {
    char bytes[4096];
    for (;;) {
      const os::MutableBuffer room{bytes, sizeof bytes};
      const os::IoResult result = stream_->Read(&room, 1);
      if (result.status != os::IoStatus::kDone) return result.status == os::IoStatus::kWouldBlock;
      Require(reader_.Feed({bytes, result.bytes}, *this), "what comes back keeps to the protocol");
    }
  }

  /// All of `bytes`, unless the other side has enough of them.
  void Write(std::string_view bytes) {
    bool open = true;
    while (open && !bytes.empty()) {
      const os::ConstBuffer buffer{bytes.data(), bytes.size()};
      const os::IoResult result = stream_->Write(&buffer, 1);
      if (result.status == os::IoStatus::kDone) bytes.remove_prefix(result.bytes);
      open = (result.status == os::IoStatus::kDone || result.status == os::IoStatus::kWouldBlock) &&
             TakeAnswers();
      if (open && !bytes.empty()) std::this_thread::yield();
    }
  }

  /// As a process that is killed: what was written before still arrives.
  void Kill() { stream_.reset(); }

 private:
  std::unique_ptr<os::Stream> stream_;
  const lpc::Options limits_;
  lpc::wire::FrameReader reader_{limits_};
  int frames_ = 0;
  std::deque<std::uint64_t> requests_;
};

}  // namespace fuzz
