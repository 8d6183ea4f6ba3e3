#include "ScriptedServer.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <boost/uuid/detail/sha1.hpp>
#include <cerrno>
#include <chrono>
#include <cstddef>

#include "TolmBase/Encrypt.h"
#include "support/Wait.h"

namespace trust {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

constexpr char kProbe[] = "still open?";
/// How long a client may take for anything.
constexpr timeval kPatience{20, 0};

std::string KeyOf(const std::string& request) {
  constexpr std::string_view kName = "Sec-WebSocket-Key: ";
  const std::size_t at = request.find(kName);
  if (at == std::string::npos) return {};
  const std::size_t begin = at + kName.size();
  return request.substr(begin, request.find("\r\n", begin) - begin);
}

}  // namespace

std::string ScriptedServer::Proof(const std::string& key) {
  const std::string salted = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
  boost::uuids::detail::sha1 sha1;
  sha1.process_bytes(salted.data(), salted.size());
  unsigned int words[5] = {};
  sha1.get_digest(words);
  std::string digest;
  for (const unsigned int word : words) {
    for (int shift = 24; shift >= 0; shift -= 8) digest += static_cast<char>(word >> shift & 0xFF);
  }
  return Tolm::Base::Encrypt::Base64Encode(digest);
}

std::string ServerFrame::Header(std::uint64_t length) const {
  const int bytes = width != 0 ? width : length < 126 ? 1 : length < 65536 ? 2 : 8;
  std::string header{static_cast<char>((fin ? 0x80 : 0) | reserved << 4 | opcode)};
  const int bit = masked ? 0x80 : 0;
  if (bytes == 1) {
    header += static_cast<char>(bit | static_cast<int>(length));
  } else {
    header += static_cast<char>(bit | (bytes == 2 ? 126 : 127));
    for (int i = bytes - 1; i >= 0; --i) header += static_cast<char>(length >> (8 * i) & 0xFF);
  }
  if (masked) header.append(4, '\0');
  return header;
}

std::string ServerFrame::operator()(std::string_view payload) const {
  return Header(payload.size()).append(payload);
}

std::string CloseFrame(int code, std::string_view reason) {
  std::string payload{static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)};
  return ServerFrame{.opcode = 8}(payload.append(reason));
}

ScriptedServer::ScriptedServer()
    : acceptor_(context_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)), socket_(context_) {
  acceptor_.non_blocking(true);
}

ScriptedServer::~ScriptedServer() {
  Leave();
}

std::uint16_t ScriptedServer::port() const {
  return acceptor_.local_endpoint().port();
}

bool ScriptedServer::Take() {
  error_code error;
  if (!tolm::test::WaitFor([&] { return !acceptor_.accept(socket_, error); }, std::chrono::seconds(30))) {
    return false;
  }
  acceptor_.close(error);
  socket_.non_blocking(false);
  socket_.set_option(tcp::no_delay(true), error);
  ::setsockopt(socket_.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  ::setsockopt(socket_.native_handle(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
  std::size_t end = 0;
  while ((end = in_.find("\r\n\r\n")) == std::string::npos) {
    if (!Fill(in_.size() + 1)) return false;
  }
  request_ = in_.substr(0, end + 4);
  in_.erase(0, end + 4);
  accept_key_ = Proof(KeyOf(request_));
  return true;
}

bool ScriptedServer::Say(const std::vector<std::string>& pieces) {
  for (const std::string& piece : pieces) {
    error_code error;
    asio::write(socket_, asio::buffer(piece), error);
    if (error) return false;
  }
  return true;
}

bool ScriptedServer::Fill(std::size_t size) {
  std::array<char, 65536> buffer;
  while (in_.size() < size) {
    const auto got = ::recv(socket_.native_handle(), buffer.data(), buffer.size(), 0);
    if (got <= 0) return false;
    in_.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return true;
}

std::string ScriptedServer::State() {
  Say({ServerFrame{.opcode = 9}(kProbe)});
  std::string seen;
  while (Fill(6)) {
    const auto byte = [this](std::size_t at) { return static_cast<unsigned char>(in_[at]); };
    const std::size_t length = byte(1) & 0x7F;
    // What the guard's end says by itself are control frames, and those are masked.
    if ((byte(1) & 0x80) == 0 || length > 125) return seen + "a frame that is wrong";
    if (!Fill(6 + length)) break;
    std::string payload = in_.substr(6, length);
    for (std::size_t i = 0; i < length; ++i) payload[i] = static_cast<char>(payload[i] ^ in_[2 + i % 4]);
    const int opcode = byte(0) & 0x0F;
    in_.erase(0, 6 + length);
    if (opcode == 10 && payload == kProbe) return seen + "open";
    if (opcode == 8) {
      if (length < 2) return seen + "closed -";
      const auto code = static_cast<unsigned char>(payload[0]) << 8 | static_cast<unsigned char>(payload[1]);
      return seen + "closed " + std::to_string(code);
    }
    seen += (opcode == 10 ? "pong " : "frame ") + std::to_string(length) + ", ";
  }
  return seen + "dropped";
}

bool ScriptedServer::ReadToEnd() {
  std::array<char, 65536> buffer;
  while (true) {
    const auto got = ::recv(socket_.native_handle(), buffer.data(), buffer.size(), 0);
    if (got == 0 || (got < 0 && errno == ECONNRESET)) return true;
    if (got < 0) return false;
  }
}

void ScriptedServer::Leave() {
  error_code ignored;
  socket_.close(ignored);
}

}  // namespace trust
