#include "zeromq/Sockets.h"

#include <stdexcept>

namespace bench::zeromq {
namespace {

// As many as a round has fit into the queues, as they do into those of the frame. With the library's default,
// 1000, only half as many go through the router, and little more without it.
constexpr int kQueueLength = 100'000;

int Checked(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + zmq_strerror(zmq_errno()));
  return result;
}

void* Opened(int type) {
  void* const socket = zmq_socket(Context(), type);
  if (socket == nullptr) Checked(-1, "no socket");
  return socket;
}

}  // namespace

void* Context() {
  static void* const context = zmq_ctx_new();
  return context;
}

std::string CallsAddress(const std::string& endpoint) {
  return "ipc://" + endpoint + ".calls";
}

std::string OneWayAddress(const std::string& endpoint) {
  return "ipc://" + endpoint + ".oneway";
}

Socket::Socket(int type) : socket_(Opened(type)) {
  const int at_once = 0;
  Checked(zmq_setsockopt(socket_, ZMQ_LINGER, &at_once, sizeof at_once), "no linger");
  for (const int option : {ZMQ_SNDHWM, ZMQ_RCVHWM}) {
    Checked(zmq_setsockopt(socket_, option, &kQueueLength, sizeof kQueueLength), "no queue length");
  }
}

Socket::~Socket() {
  zmq_close(socket_);
}

void Socket::Bind(const std::string& address) {
  Checked(zmq_bind(socket_, address.c_str()), "cannot bind");
}

void Socket::Connect(const std::string& address) {
  Checked(zmq_connect(socket_, address.c_str()), "cannot connect");
}

void Socket::Send(const std::string& body) {
  Checked(zmq_send(socket_, body.data(), body.size(), 0), "cannot send");
}

Message::Message() {
  zmq_msg_init(&message_);
}

Message::~Message() {
  zmq_msg_close(&message_);
}

void Message::Receive(const Socket& socket) {
  Checked(zmq_msg_recv(&message_, socket.get(), 0), "cannot receive");
}

void Message::Send(const Socket& socket) {
  Checked(zmq_msg_send(&message_, socket.get(), 0), "cannot send");
}

}  // namespace bench::zeromq
