#pragma once

// Takes the bytes of a client apart into frames, and finds what RFC 6455 forbids in them.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "FrameText.h"
#include "TolmBase/Utf8Check.h"

namespace Tolm::Net {

/// Why a client's connection has to end.
struct FrameFault {
  CloseCode code;
  const char* why;
};

class FrameReader {
 public:
  class Receiver {
   public:
    virtual void OnData(int opcode, bool fin, const char* data, std::uint32_t len) = 0;
    virtual void OnPing(std::string_view payload) = 0;
    /// `code` is 0 when the peer gave none.
    virtual void OnClose(std::uint16_t code) = 0;
    /// Whether nothing further is to be read, asked after each frame.
    virtual bool IsOver() const = 0;

   protected:
    ~Receiver() = default;
  };

  /// `receiver` must outlive it.
  FrameReader(Receiver& receiver, std::uint32_t max_payload)
      : receiver_(receiver), max_payload_(max_payload) {}

  /// Reads `size` bytes and hands on what they complete. A fault ends it: no more calls after that.
  /// May throw bad_alloc, and what the receiver throws.
  std::optional<FrameFault> Read(const char* data, std::size_t size);

 private:
  std::optional<FrameFault> LookAtHeader();
  std::optional<FrameFault> LookAtLength(std::uint64_t length) const;
  void BeginPayload(std::uint64_t length);
  std::optional<FrameFault> AddPayload(const char* data, std::size_t size);
  std::optional<FrameFault> EndFrame();
  std::optional<FrameFault> EndCloseFrame();

  bool IsControl() const { return (opcode_ & 8) != 0; }
  bool IsText() const { return message_is_text_ && !IsControl(); }

  Receiver& receiver_;
  const std::uint32_t max_payload_;

  unsigned char header_[14] = {};
  std::size_t header_has_ = 0;
  std::size_t header_needs_ = 2;
  int opcode_ = 0;
  bool fin_ = false;

  // Of the payload. Small ones share a buffer; a large one has its own, which goes with it.
  bool in_payload_ = false;
  unsigned char mask_[4] = {};
  std::unique_ptr<char[]> small_;
  std::unique_ptr<char[]> large_;
  char* payload_ = nullptr;
  std::uint32_t payload_size_ = 0;
  std::uint32_t payload_has_ = 0;

  // Of the message that fragments belong to.
  bool in_message_ = false;
  bool message_is_text_ = false;
  Base::Utf8Check utf8_;
};

}  // namespace Tolm::Net
