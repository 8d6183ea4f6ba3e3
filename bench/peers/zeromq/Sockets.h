#pragma once

// The library's C functions, with their failures as exceptions.

#include <zmq.h>
#include <cstddef>
#include <string>

namespace bench::zeromq {

/// One per process, with one thread for all input and output: the library's default and what it advises
/// below a gigabyte per second. It lasts as long as the process.
void* Context();

// A server's and a router's two sockets.
std::string CallsAddress(const std::string& endpoint);
std::string OneWayAddress(const std::string& endpoint);

class Socket {
 public:
  explicit Socket(int type);
  /// Does not wait for what is still to be sent.
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void Bind(const std::string& address);
  void Connect(const std::string& address);
  void Send(const std::string& body);
  void* get() const { return socket_; }

 private:
  void* const socket_;
};

/// Reads into a message of the library's own, so that nothing is copied that need not be.
class Message {
 public:
  Message();
  ~Message();
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  void Receive(const Socket& socket);
  /// Gives it away.
  void Send(const Socket& socket);
  std::size_t size() const { return zmq_msg_size(&message_); }

 private:
  zmq_msg_t message_;
};

}  // namespace bench::zeromq
