#include "RawClient.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace tolm::test {
namespace {

constexpr char kMask[4] = {0x12, 0x34, 0x56, 0x78};

}  // namespace

int SeenFrame::close_code() const {
  if (payload.size() < 2) return 0;
  return static_cast<unsigned char>(payload[0]) << 8 | static_cast<unsigned char>(payload[1]);
}

std::string FrameBytes::Header(std::uint64_t length, int width) const {
  if (width == 0) width = length < 126 ? 1 : length < 65536 ? 2 : 8;
  std::string bytes;
  bytes.push_back(static_cast<char>((fin ? 0x80 : 0) | reserved << 4 | opcode));
  const int mask_bit = masked ? 0x80 : 0;
  if (width == 1) {
    bytes.push_back(static_cast<char>(mask_bit | static_cast<int>(length)));
  } else {
    bytes.push_back(static_cast<char>(mask_bit | (width == 2 ? 126 : 127)));
    for (int i = width - 1; i >= 0; --i) bytes.push_back(static_cast<char>(length >> (8 * i) & 0xFF));
  }
  if (masked) bytes.append(kMask, 4);
  return bytes;
}

std::string FrameBytes::operator()(std::string_view payload) const {
  std::string bytes = Header(payload.size());
  const std::size_t begin = bytes.size();
  bytes.append(payload);
  if (!masked) return bytes;
  // Eight bytes at a time: some payloads are as large as a server takes.
  const std::string mask = std::string(kMask, 4) + std::string(kMask, 4);
  for (std::size_t i = begin; i < bytes.size(); i += 8) {
    const std::size_t size = std::min<std::size_t>(8, bytes.size() - i);
    std::uint64_t eight = 0;
    std::uint64_t eight_mask = 0;
    std::memcpy(&eight, bytes.data() + i, size);
    std::memcpy(&eight_mask, mask.data(), 8);
    eight ^= eight_mask;
    std::memcpy(bytes.data() + i, &eight, size);
  }
  return bytes;
}

std::string Text(std::string_view payload, bool fin) {
  return FrameBytes{.opcode = 1, .fin = fin}(payload);
}

std::string CloseBytes(int code, std::string_view reason) {
  std::string payload{static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)};
  payload.append(reason);
  return FrameBytes{.opcode = 8}(payload);
}

std::string UpgradeRequestBytes(std::initializer_list<std::string_view> changes,
                                std::string_view request_line) {
  std::vector<std::string> lines{"Host: 127.0.0.1", "Upgrade: websocket", "Connection: Upgrade",
                                 "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==", "Sec-WebSocket-Version: 13"};
  for (const std::string_view change : changes) {
    const std::string_view name = change.substr(0, change.find(':') + 1);
    std::erase_if(lines, [&](const std::string& line) { return line.starts_with(name); });
    if (name != change) lines.emplace_back(change);
  }
  std::string bytes(request_line);
  bytes += "\r\n";
  for (const auto& line : lines) bytes += line + "\r\n";
  return bytes + "\r\n";
}

RawClient::RawClient(std::uint16_t port, int receive_buffer) : socket_(Connect(port, receive_buffer)) {}

RawClient::~RawClient() {
  Close();
}

RawClient::RawClient(RawClient&& other) noexcept
    : socket_(std::exchange(other.socket_, kNoClientSocket)), in_(std::move(other.in_)) {}

RawClient& RawClient::operator=(RawClient&& other) noexcept {
  std::swap(socket_, other.socket_);
  std::swap(in_, other.in_);
  return *this;
}

RawClient RawClient::Upgraded(std::uint16_t port, int receive_buffer) {
  RawClient client(port, receive_buffer);
  client.Send(UpgradeRequestBytes());
  if (!client.ReadHead().starts_with("HTTP/1.1 101 ")) client.Close();
  return client;
}

bool RawClient::HasInput() const {
  return !in_.empty() || WaitForInput(socket_, std::chrono::milliseconds(0));
}

bool RawClient::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    if (!connected() || !WaitForRoom(socket_, kLong)) return false;
    const std::ptrdiff_t sent = SendSome(socket_, bytes);
    if (sent < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool RawClient::ReceiveOnce() {
  if (!connected() || !WaitForInput(socket_, kLong)) return false;
  char buffer[65536];
  const std::ptrdiff_t got = Receive(socket_, buffer, sizeof buffer);
  if (got <= 0) return false;
  in_.append(buffer, static_cast<std::size_t>(got));
  return true;
}

bool RawClient::Fill(std::size_t bytes) {
  while (in_.size() < bytes) {
    if (!ReceiveOnce()) return false;
  }
  return true;
}

std::string RawClient::ReadHead() {
  std::size_t end = 0;
  while ((end = in_.find("\r\n\r\n")) == std::string::npos) {
    if (!ReceiveOnce()) return std::exchange(in_, {});
  }
  const std::string head = in_.substr(0, end + 4);
  in_.erase(0, end + 4);
  return head;
}

std::optional<SeenFrame> RawClient::ReadFrame() {
  if (!Fill(2)) return std::nullopt;
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(in_[i]); };
  SeenFrame frame;
  frame.opcode = byte(0) & 0x0F;
  frame.fin = (byte(0) & 0x80) != 0;
  frame.masked = (byte(1) & 0x80) != 0;
  std::uint64_t length = byte(1) & 0x7F;
  std::size_t header = 2;
  if (length >= 126) {
    header += length == 126 ? 2 : 8;
    if (!Fill(header)) return std::nullopt;
    length = 0;
    for (std::size_t i = 2; i < header; ++i) length = length << 8 | byte(i);
  }
  if (!Fill(header + length)) return std::nullopt;
  frame.payload = in_.substr(header, length);
  in_.erase(0, header + length);
  return frame;
}

bool RawClient::ReadToEnd() {
  while (connected() && WaitForInput(socket_, kLong)) {
    char buffer[65536];
    if (Receive(socket_, buffer, sizeof buffer) <= 0) return true;
  }
  return !connected();
}

std::size_t RawClient::TakeSome(std::size_t bytes) {
  if (!connected() || !WaitForInput(socket_, kLong)) return 0;
  std::vector<char> buffer(bytes);
  const std::ptrdiff_t got = Receive(socket_, buffer.data(), bytes);
  return got > 0 ? static_cast<std::size_t>(got) : 0;
}

void RawClient::Reset() {
  if (connected()) ResetOnClose(socket_);
  Close();
}

void RawClient::Close() {
  if (connected()) CloseSocket(socket_);
  socket_ = kNoClientSocket;
}

}  // namespace tolm::test
