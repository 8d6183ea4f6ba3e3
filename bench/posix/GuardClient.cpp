#include "posix/GuardClient.h"

#include <cstddef>
#include <stdexcept>

#include "posix/Loopback.h"

namespace bench {
namespace {

constexpr unsigned char kMask[] = {0x37, 0xFA, 0x21, 0x3D};
constexpr int kFinalText = 0x81;
constexpr std::size_t kTwoByteLength = 126;
constexpr std::size_t kEightByteLength = 127;

std::string BigEndian(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = bytes - 1; i >= 0; --i) text += static_cast<char>(value >> (8 * i) & 0xFF);
  return text;
}

std::size_t Number(const std::string& big_endian) {
  std::size_t value = 0;
  for (const char byte : big_endian) value = value << 8 | static_cast<unsigned char>(byte);
  return value;
}

}  // namespace

GuardClient::GuardClient(std::uint16_t port) : channel_(ConnectTo(port)) {
  const std::string request = "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                              "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                              "Sec-WebSocket-Version: 13\r\n\r\n";
  channel_.Write(request.data(), request.size());
  std::string answer;
  while (!answer.ends_with("\r\n\r\n")) answer += Read(1);
  if (!answer.starts_with("HTTP/1.1 101 ")) throw std::runtime_error("the frame refuses a guard: " + answer);
}

std::string GuardClient::FrameOf(const std::string& text) {
  std::string frame(1, static_cast<char>(kFinalText));
  if (text.size() < kTwoByteLength) {
    frame += static_cast<char>(0x80 | text.size());
  } else if (text.size() < 1u << 16) {
    frame += static_cast<char>(0x80 | kTwoByteLength) + BigEndian(text.size(), 2);
  } else {
    frame += static_cast<char>(0x80 | kEightByteLength) + BigEndian(text.size(), 8);
  }
  frame.reserve(frame.size() + sizeof kMask + text.size());
  for (const unsigned char byte : kMask) frame += static_cast<char>(byte);
  for (std::size_t i = 0; i < text.size(); ++i) {
    frame += static_cast<char>(static_cast<unsigned char>(text[i]) ^ kMask[i % sizeof kMask]);
  }
  return frame;
}

std::string GuardClient::Ask(const std::string& frame) {
  channel_.Write(frame.data(), frame.size());
  std::string answer = Read(2);
  if (static_cast<unsigned char>(answer[0]) != kFinalText)
    throw std::runtime_error("the frame sends no text");
  std::size_t length = static_cast<unsigned char>(answer[1]);
  if (length >= kTwoByteLength) {
    const std::string extended = Read(length == kTwoByteLength ? 2 : 8);
    length = Number(extended);
    answer += extended;
  }
  return answer + Read(length);
}

std::string GuardClient::Read(std::size_t size) {
  std::string bytes(size, '\0');
  if (!channel_.Read(bytes.data(), size)) throw std::runtime_error("the frame closes a guard's connection");
  return bytes;
}

}  // namespace bench
