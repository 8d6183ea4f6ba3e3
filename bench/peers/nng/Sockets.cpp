#include "nng/Sockets.h"

#include <cstring>
#include <stdexcept>

namespace bench::nng {
namespace {

void Check(int result, const char* what) {
  if (result != 0) throw std::runtime_error(std::string(what) + ": " + nng_strerror(result));
}

}  // namespace

std::string CallsAddress(const std::string& endpoint) {
  return "ipc://" + endpoint + ".calls";
}

std::string OneWayAddress(const std::string& endpoint) {
  return "ipc://" + endpoint + ".oneway";
}

// The library takes no message above 1 MiB from others unless it is told to.
Socket::Socket(int (*open)(nng_socket*)) {
  Check(open(&socket_), "no socket");
  Check(nng_socket_set_size(socket_, NNG_OPT_RECVMAXSZ, 0), "no largest size");
}

Socket::~Socket() {
  nng_close(socket_);
}

void Socket::SetSendQueue(int messages) {
  Check(nng_socket_set_int(socket_, NNG_OPT_SENDBUF, messages), "no send queue");
}

void Socket::SetReceiveQueue(int messages) {
  Check(nng_socket_set_int(socket_, NNG_OPT_RECVBUF, messages), "no receive queue");
}

void Socket::Listen(const std::string& address) {
  Check(nng_listen(socket_, address.c_str(), nullptr, 0), "cannot listen");
}

void Socket::Dial(const std::string& address) {
  Check(nng_dial(socket_, address.c_str(), nullptr, 0), "cannot dial");
}

void Socket::Send(const std::string& body) {
  nng_msg* message = nullptr;
  Check(nng_msg_alloc(&message, body.size()), "no message");
  std::memcpy(nng_msg_body(message), body.data(), body.size());
  const int result = nng_sendmsg(socket_, message, 0);
  if (result != 0) nng_msg_free(message);
  Check(result, "cannot send");
}

Message::~Message() {
  if (message_ != nullptr) nng_msg_free(message_);
}

void Message::Receive(const Socket& socket) {
  if (message_ != nullptr) nng_msg_free(message_);
  message_ = nullptr;
  Check(nng_recvmsg(socket.get(), &message_, 0), "cannot receive");
}

void Message::Send(const Socket& socket) {
  Check(nng_sendmsg(socket.get(), message_, 0), "cannot send");
  message_ = nullptr;
}

}  // namespace bench::nng
