#pragma once

// The library's C functions, with their failures as exceptions.

#include <nng/nng.h>
#include <cstddef>
#include <string>

namespace bench::nng {

// A server's and a router's two sockets.
std::string CallsAddress(const std::string& endpoint);
std::string OneWayAddress(const std::string& endpoint);

class Socket {
 public:
  /// `open` is one of the library's, which are named after the protocols.
  explicit Socket(int (*open)(nng_socket*));
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void SetSendQueue(int messages);
  void SetReceiveQueue(int messages);
  void Listen(const std::string& address);
  void Dial(const std::string& address);
  void Send(const std::string& body);
  nng_socket get() const { return socket_; }

 private:
  nng_socket socket_ = NNG_SOCKET_INITIALIZER;
};

/// Reads into a message of the library's own, so that nothing is copied that need not be.
class Message {
 public:
  Message() = default;
  ~Message();
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  void Receive(const Socket& socket);
  /// Gives it away.
  void Send(const Socket& socket);
  std::size_t size() const { return nng_msg_len(message_); }

 private:
  nng_msg* message_ = nullptr;
};

}  // namespace bench::nng
