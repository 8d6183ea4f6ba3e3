#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace trust {

/// A frame as a server sends it; each deviation is one argument.
struct ServerFrame {
  int opcode = 1;
  bool fin = true;
  int reserved = 0;
  bool masked = false;
  /// Bytes that the length is written in; 0: the fewest.
  int width = 0;

  std::string operator()(std::string_view payload) const;
  std::string Header(std::uint64_t length) const;
};

std::string CloseFrame(int code, std::string_view reason = {});

/// A server that says what it is told to one client, and looks at what comes back.
class ScriptedServer {
 public:
  ScriptedServer();
  ~ScriptedServer();

  std::uint16_t port() const;
  /// Takes the next client and reads the head of its request. False when none comes.
  bool Take();
  /// What proves that a request with this key was read (RFC 6455, section 4.2.2).
  static std::string Proof(const std::string& key);
  /// That of the request.
  std::string AcceptKey() const { return accept_key_; }
  const std::string& request() const { return request_; }

  /// Each piece leaves by itself. False when the client has gone.
  bool Say(const std::vector<std::string>& pieces);
  /// How the connection stands: "open" when a ping is answered, "closed <code>" for a close frame, "closed -"
  /// for one without a code, "dropped" for an end without any. Other frames are named before it.
  std::string State();
  /// Reads until the client has gone; whether it has.
  bool ReadToEnd();
  void Leave();

 private:
  bool Fill(std::size_t size);

  boost::asio::io_context context_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::ip::tcp::socket socket_;
  std::string request_;
  std::string accept_key_;
  std::string in_;
};

}  // namespace trust
