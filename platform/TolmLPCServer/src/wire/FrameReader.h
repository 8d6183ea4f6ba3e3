#pragma once

// Takes the bytes of a connection apart into control frames and whole messages.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "TolmLPCServer/LpcOptions.h"
#include "wire/Frame.h"
#include "wire/Message.h"

namespace lpc::wire {

/// Receives what a FrameReader finds.
class FrameSink {
 public:
  virtual void OnControlFrame(const FrameHeader& header, std::string_view payload) = 0;
  virtual void OnMessage(InboundMessage&& message) = 0;

 protected:
  ~FrameSink() = default;
};

/// Kind, then size, then memory: nothing that the peer states is believed before it is checked against
/// a limit, and no more is allocated than has arrived, but for one doubling, or room that stays untouched:
/// 32 MiB for the first long bodies that are under way together, 2 MiB for others. After a violation the
/// reader takes nothing more. Used by one thread at a time.
class FrameReader {
 public:
  explicit FrameReader(const Options& options) : options_(options) {}

  /// Before the handshake is over, only control frames are accepted.
  void AcceptMessages() { accept_messages_ = true; }

  /// How many bytes may be read without going beyond the frame that is under way: for a handshake, so
  /// that what follows it stays with the system.
  std::size_t NeededForFrame() const;

  /// Whether a message in several frames is under way, or much of one that has a frame of its own.
  bool IsInLongMessage() const { return !streams_.empty() || RoomInPlace() > 0; }
  /// Where the next bytes of a long body belong.
  struct Place {
    char* data = nullptr;
    std::size_t size = 0;
  };
  /// Has `read` fill the place of a long body that is under way, from its beginning; it returns how many
  /// bytes it has filled. False, without a call of it, when there is no such place.
  bool ReadToPlace(const std::function<std::size_t(Place)>& read, FrameSink& sink);

  /// Takes all of `bytes`. False after a violation, also an earlier one.
  bool Feed(std::string_view bytes, FrameSink& sink);

  /// What the peer did wrong; empty when nothing.
  const std::string& violation() const { return violation_; }
  /// The error code that goes with it.
  int violation_code() const { return violation_code_; }
  /// Bytes held for messages that are not complete.
  std::size_t held_bytes() const { return held_; }

 private:
  // A message of which not everything has arrived.
  struct Assembly {
    InboundMessage message;
    std::string prefix;
    std::string meta;
    MessagePrefix sizes;
    bool has_sizes = false;
    std::size_t held = 0;
  };

  std::size_t RoomInPlace() const;
  bool BeginFrame();
  bool EndFrame(FrameSink& sink);
  bool FeedPayload(std::string_view& bytes);
  bool FeedAssembly(std::string_view bytes);
  bool TakeSizes();
  bool Hold(std::size_t bytes);
  bool Violate(int code, std::string what);

  const Options& options_;
  bool accept_messages_ = false;
  std::string violation_;
  int violation_code_ = 0;

  std::string header_bytes_;
  FrameHeader header_;
  bool in_frame_ = false;
  std::size_t frame_left_ = 0;
  std::string control_payload_;
  bool skip_ = false;            // the frame is of an unknown optional type
  Assembly* current_ = nullptr;  // the message of the frame that is under way
  Assembly whole_;               // a message without chunks
  std::map<std::uint16_t, Assembly> streams_;
  std::size_t held_ = 0;
};

}  // namespace lpc::wire
