#include "FrameText.h"

#include <cstring>

namespace Tolm::Net {

OutgoingFrame MakeFrame(int opcode, bool fin, const char* data, std::size_t len) {
  unsigned char header[10];
  std::size_t header_size = 2;
  header[0] = static_cast<unsigned char>((fin ? 0x80 : 0) | opcode);
  if (len < 126) {
    header[1] = static_cast<unsigned char>(len);
  } else {
    const std::size_t width = len < 65536 ? 2 : 8;
    header[1] = width == 2 ? 126 : 127;
    for (std::size_t i = 0; i < width; ++i) {
      header[2 + i] = static_cast<unsigned char>(std::uint64_t{len} >> (8 * (width - 1 - i)));
    }
    header_size += width;
  }
  OutgoingFrame frame;
  frame.size = header_size + len;
  frame.bytes = std::make_unique_for_overwrite<char[]>(frame.size);
  std::memcpy(frame.bytes.get(), header, header_size);
  if (len > 0) std::memcpy(frame.bytes.get() + header_size, data, len);
  return frame;
}

OutgoingFrame MakeCloseFrame(std::uint16_t code, std::string_view reason) {
  std::string payload;
  if (code != 0) {
    payload.push_back(static_cast<char>(code >> 8));
    payload.push_back(static_cast<char>(code & 0xFF));
    payload.append(reason);
  }
  return MakeFrame(8, true, payload.data(), payload.size());
}

OutgoingFrame MakeRaw(std::string_view bytes) {
  OutgoingFrame frame;
  frame.size = bytes.size();
  frame.bytes = std::make_unique_for_overwrite<char[]>(frame.size);
  std::memcpy(frame.bytes.get(), bytes.data(), bytes.size());
  return frame;
}

}  // namespace Tolm::Net
