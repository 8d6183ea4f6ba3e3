#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "support/Wait.h"

namespace guard {

/// A frame's endpoint that does everything step by step, as the test says.
class FrameEndpoint {
  using Tcp = boost::asio::ip::tcp;

 public:
  FrameEndpoint() : acceptor_(context_, Tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0)) {
    acceptor_.non_blocking(true);
  }

  std::uint16_t port() const { return acceptor_.local_endpoint().port(); }
  boost::beast::http::request<boost::beast::http::string_body>& request() { return request_; }
  boost::beast::websocket::stream<Tcp::socket>& stream() { return *stream_; }

  /// Takes the next connection and reads its request.
  bool TakeRequest() {
    stream_.emplace(context_);
    boost::system::error_code error;
    if (!tolm::test::WaitFor([&] { return !acceptor_.accept(stream_->next_layer(), error); })) return false;
    stream_->next_layer().non_blocking(false);
    request_ = {};
    boost::beast::flat_buffer buffer;
    boost::beast::http::read(stream_->next_layer(), buffer, request_, error);
    return !error;
  }
  bool Accept() {
    if (!TakeRequest()) return false;
    boost::system::error_code error;
    stream_->accept(request_, error);
    return !error;
  }
  /// The next text; empty when the connection has ended, for the reason in `ended`.
  std::string Read() {
    boost::beast::flat_buffer buffer;
    stream_->read(buffer, ended);
    return ended ? std::string() : boost::beast::buffers_to_string(buffer.data());
  }
  void Close() {
    boost::system::error_code ignored;
    stream_->next_layer().close(ignored);
  }

  boost::system::error_code ended;

 private:
  boost::asio::io_context context_;
  Tcp::acceptor acceptor_;
  boost::beast::http::request<boost::beast::http::string_body> request_;
  std::optional<boost::beast::websocket::stream<Tcp::socket>> stream_;
};

}  // namespace guard
