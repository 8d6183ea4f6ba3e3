#include "wire/FrameReader.h"

#include <algorithm>
#include <utility>

#include "TolmLPCServer/LpcError.h"

namespace lpc::wire {
namespace {

constexpr std::size_t kMaxStreams = 1024;
// A body is read to its place directly when at least this much of it is still to come.
constexpr std::size_t kDirectMinimum = 16u << 10;
// So much room is made for a body on the peer's word alone; untouched, it is an address range and no
// memory. Bodies that grow are copied, so the few that a peer has under way at a time get more.
constexpr std::size_t kRoomAtOnce = 2u << 20;
constexpr std::size_t kRoomOfFew = 32u << 20;
constexpr std::size_t kFew = 4;

}  // namespace

bool FrameReader::Violate(int code, std::string what) {
  violation_ = std::move(what);
  violation_code_ = code;
  return false;
}

std::size_t FrameReader::NeededForFrame() const {
  return in_frame_ ? frame_left_ : kHeaderSize - header_bytes_.size();
}

bool FrameReader::BeginFrame() {
  header_ = DecodeHeader(header_bytes_.data());
  header_bytes_.clear();
  frame_left_ = header_.payload_size;
  control_payload_.clear();
  current_ = nullptr;
  skip_ = false;
  const auto type = static_cast<std::uint8_t>(header_.type);

  if (!CarriesMessage(header_.type)) {
    const bool known = (type >= 1 && type <= 6) || header_.type == FrameType::kCancel ||
                       header_.type == FrameType::kUndeliverable;
    skip_ = !known && type >= kFirstOptionalType;
    if (!known && !skip_) return Violate(kProtocol, "unknown frame type " + std::to_string(type));
    const std::size_t limit = skip_ ? kMaxFramePayload : kMaxControlPayload;
    if (frame_left_ > limit) {
      return Violate(kMessageTooLarge, "a frame of type " + std::to_string(type) + " with " +
                                           std::to_string(frame_left_) + " bytes, limit " +
                                           std::to_string(limit));
    }
    in_frame_ = true;
    return true;
  }

  if (!accept_messages_) return Violate(kProtocol, "a message before the handshake was complete");
  if (frame_left_ > kMaxFramePayload) {
    return Violate(kMessageTooLarge, "a frame with " + std::to_string(frame_left_) + " bytes, limit " +
                                         std::to_string(kMaxFramePayload));
  }
  const bool more = (header_.flags & kFlagMore) != 0;
  const auto stream = streams_.find(header_.stream);
  if (header_.type == FrameType::kChunk) {
    if (stream == streams_.end()) return Violate(kProtocol, "a chunk of no message");
    current_ = &stream->second;
  } else if (header_.stream == 0 && !more) {
    whole_ = Assembly{};
    current_ = &whole_;
  } else {
    if (header_.stream == 0 || !more) return Violate(kProtocol, "stream number and flags do not agree");
    if (stream != streams_.end()) return Violate(kProtocol, "a stream number that is in use");
    if (streams_.size() >= kMaxStreams) return Violate(kProtocol, "too many messages at a time");
    current_ = &streams_[header_.stream];
  }
  if (header_.type != FrameType::kChunk) {
    current_->message.type = header_.type;
    current_->message.flags = header_.flags;
    current_->message.id = header_.message_id;
  }
  in_frame_ = true;
  return true;
}

bool FrameReader::TakeSizes() {
  Assembly& assembly = *current_;
  assembly.sizes = DecodePrefix(assembly.prefix.data());
  assembly.has_sizes = true;
  assembly.message.time_out_ms = assembly.sizes.time_out_ms;
  if (assembly.sizes.total() > options_.max_message_bytes) {
    return Violate(kMessageTooLarge, "a message with " + std::to_string(assembly.sizes.total()) +
                                         " bytes, limit " + std::to_string(options_.max_message_bytes));
  }
  const std::size_t room = streams_.size() <= kFew ? kRoomOfFew : kRoomAtOnce;
  assembly.message.body.reserve(std::min<std::size_t>(assembly.sizes.body_size, room));
  return true;
}

// Messages of a well-behaved peer share the wire, as many as its queue has room for, beside the one that
// is on its way already. Whoever begins more and finishes none is stopped here.
bool FrameReader::Hold(std::size_t bytes) {
  current_->held += bytes;
  held_ += bytes;
  return held_ <= 2 * options_.max_message_bytes + options_.max_queue_bytes ||
         Violate(kMessageTooLarge, "incomplete messages with " + std::to_string(held_) + " bytes");
}

bool FrameReader::FeedAssembly(std::string_view bytes) {
  if (!Hold(bytes.size())) return false;
  Assembly& assembly = *current_;
  const auto take = [&bytes](std::string& into, std::size_t until) {
    const std::size_t part = std::min(bytes.size(), until - into.size());
    into.append(bytes.substr(0, part));
    bytes.remove_prefix(part);
  };
  if (!assembly.has_sizes) {
    take(assembly.prefix, kPrefixSize);
    if (assembly.prefix.size() < kPrefixSize) return true;
    if (!TakeSizes()) return false;
  }
  take(assembly.meta, assembly.sizes.meta_size);
  take(assembly.message.body, assembly.sizes.body_size);
  return bytes.empty() || Violate(kProtocol, "a message longer than it says");
}

// What is left of the frame and worth to be read to its place.
std::size_t FrameReader::RoomInPlace() const {
  if (!violation_.empty() || !in_frame_ || current_ == nullptr || !current_->has_sizes) return 0;
  const Assembly& assembly = *current_;
  if (assembly.meta.size() < assembly.sizes.meta_size) return 0;
  const std::size_t room =
      std::min<std::size_t>(frame_left_, assembly.sizes.body_size - assembly.message.body.size());
  return room < kDirectMinimum ? 0 : room;
}

// The bytes that are read are the first ones that stand there: to zero them before would take as long as to
// copy them.
bool FrameReader::ReadToPlace(const std::function<std::size_t(Place)>& read, FrameSink& sink) {
  const std::size_t room = RoomInPlace();
  if (room == 0) return false;
  Assembly& assembly = *current_;
  std::string& body = assembly.message.body;
  const std::size_t before = body.size();
  if (body.capacity() < before + room) {
    body.reserve(std::min<std::size_t>(assembly.sizes.body_size, std::max(2 * before, before + room)));
  }
  std::size_t size = 0;
  body.resize_and_overwrite(before + room, [&](char* bytes, std::size_t) {
    size = read({bytes + before, room});
    return before + size;
  });
  frame_left_ -= size;
  if (Hold(size) && frame_left_ == 0) EndFrame(sink);
  return true;
}

bool FrameReader::EndFrame(FrameSink& sink) {
  in_frame_ = false;
  if (skip_) return true;
  if (current_ == nullptr) {
    sink.OnControlFrame(header_, control_payload_);
    return true;
  }
  if ((header_.flags & kFlagMore) != 0) return true;
  Assembly assembly = std::move(*current_);
  current_ = nullptr;
  held_ -= assembly.held;
  if (header_.stream != 0) streams_.erase(header_.stream);
  if (!assembly.has_sizes || assembly.meta.size() != assembly.sizes.meta_size ||
      assembly.message.body.size() != assembly.sizes.body_size) {
    return Violate(kProtocol, "a message shorter than it says");
  }
  if (!DecodeMeta(assembly.message, assembly.meta, options_.max_params)) {
    return Violate(kProtocol, "ids or params that are malformed or too many");
  }
  sink.OnMessage(std::move(assembly.message));
  return true;
}

bool FrameReader::FeedPayload(std::string_view& bytes) {
  const std::string_view part = bytes.substr(0, frame_left_);
  bytes.remove_prefix(part.size());
  frame_left_ -= part.size();
  if (skip_) return true;
  if (current_ != nullptr) return FeedAssembly(part);
  control_payload_.append(part);
  return true;
}

bool FrameReader::Feed(std::string_view bytes, FrameSink& sink) {
  while (violation_.empty() && !bytes.empty()) {
    if (!in_frame_) {
      const std::size_t part = std::min(bytes.size(), kHeaderSize - header_bytes_.size());
      header_bytes_.append(bytes.substr(0, part));
      bytes.remove_prefix(part);
      if (header_bytes_.size() < kHeaderSize) break;
      if (!BeginFrame()) return false;
    } else if (!FeedPayload(bytes)) {
      return false;
    }
    if (in_frame_ && frame_left_ == 0 && !EndFrame(sink)) return false;
  }
  return violation_.empty();
}

}  // namespace lpc::wire
