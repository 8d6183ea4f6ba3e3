#include "FrameLink.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket.hpp>
#include <deque>
#include <exception>
#include <thread>
#include <utility>

#include "TolmBase/LogLine.h"
#include "TolmBase/Utf8Check.h"
#include "os/Mutex.h"
#include "os/PortTable.h"
#include "os/ThreadName.h"

namespace guard {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;

constexpr char kTag[] = "TolmGuard";
constexpr std::size_t kMaxMessageBytes = 64u << 20;
/// The guard says little: a frame that lets so much pile up does not listen.
constexpr std::size_t kMaxQueuedBytes = 16u << 20;
constexpr std::size_t kKeptBuffer = 1u << 20;
constexpr std::chrono::seconds kConnectTimeOut{2};
constexpr std::chrono::seconds kHandshakeTimeOut{5};
constexpr Milliseconds kCloseTimeOut{200};
constexpr Milliseconds kShortagePause{50};

}  // namespace

// All but Send and the two ends of its life runs on the link's thread.
class FrameLink::Impl {
 public:
  Impl(FrameLinkOptions options, FrameLinkHandlers handlers)
      : options_(std::move(options)),
        handlers_(std::move(handlers)),
        timer_(context_),
        close_timer_(context_),
        retry_(options_.first_retry) {}

  void Start() {
    asio::post(context_, [this] { Connect(); });
    thread_ = std::thread([this] {
      os::SetThreadName("guard-link");
      while (!RunOnce()) std::this_thread::sleep_for(kShortagePause);
    });
  }

  void Stop() {
    if (!thread_.joinable()) return;
    try {
      asio::post(context_, [this] { Close(); });
    } catch (const std::exception&) {
      context_.stop();  // without a goodbye
    }
    thread_.join();
    // Handlers that never ran hold it as well, for as long as the link exists.
    if (current_) beast::get_lowest_layer(current_->stream).close();
  }

  bool Send(std::string text) {
    // The frame would have to end the connection.
    if (!Tolm::Base::IsUtf8(text)) {
      TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "a text of %zu bytes for the frame is not UTF-8: dropped",
               text.size());
      return false;
    }
    const os::MutexLock lock(mutex_);
    if (!connected_) return false;
    if (queued_bytes_ + text.size() > kMaxQueuedBytes) {
      TOLM_LOG(Tolm::Base::kLogLevelError, kTag, "the frame takes no messages: one of %zu bytes is dropped",
               text.size());
      return false;
    }
    const std::size_t bytes = text.size();
    queue_.push_back(std::move(text));
    if (!writing_) {
      try {
        asio::post(context_, [this, connection = connection_] { Write(connection); });
      } catch (...) {
        queue_.pop_back();
        throw;
      }
    }
    queued_bytes_ += bytes;
    writing_ = true;
    return true;
  }

 private:
  using Stream = websocket::stream<beast::tcp_stream>;

  struct Connection {
    explicit Connection(asio::io_context& context) : stream(context) {}
    Stream stream;
    beast::flat_buffer received;
    std::string sent;  // what is being written
    tcp::endpoint endpoint;
    std::string host;
    websocket::response_type answer;  // to the upgrade
  };
  using ConnectionPtr = std::shared_ptr<Connection>;

  void Connect() {
    if (stopping_) return;
    std::string why;
    const std::uint16_t port = ReadConfigPort(options_.config, options_.role, why);
    if (port == 0) {
      Retry(why);
      return;
    }
    const auto connection = std::make_shared<Connection>(context_);
    current_ = connection;
    connection->endpoint = {asio::ip::address_v4::loopback(), port};
    connection->host = "127.0.0.1:" + std::to_string(port);
    auto& tcp_stream = beast::get_lowest_layer(connection->stream);
    tcp_stream.expires_after(kConnectTimeOut);
    tcp_stream.async_connect(connection->endpoint, [this, connection](const error_code& error) {
      if (error) {
        Lose(connection, "no frame listens at " + connection->host + ": " + error.message());
      } else {
        Handshake(connection);
      }
    });
  }

  void Handshake(const ConnectionPtr& connection) {
    auto& tcp_stream = beast::get_lowest_layer(connection->stream);
    tcp_stream.expires_never();  // the WebSocket layer has time-outs of its own
    error_code ignored;
    tcp_stream.socket().set_option(tcp::no_delay(true), ignored);
    // A ping goes out at half of the idle time.
    connection->stream.set_option(
        websocket::stream_base::timeout{kHandshakeTimeOut, 2 * options_.ping_interval, true});
    // Messages in several frames are not put together on the other side.
    connection->stream.auto_fragment(false);
    connection->stream.text(true);
    connection->stream.read_message_max(kMaxMessageBytes);
    connection->stream.async_handshake(
        connection->answer, connection->host, "/", [this, connection](const error_code& error) {
          if (error) {
            Lose(connection, connection->host + " refuses the connection: " + error.message());
          } else if (HasUnaskedFor(connection->answer)) {
            Lose(connection, connection->host + " answers with an extension or a subprotocol");
          } else {
            Begin(connection);
          }
        });
  }

  // What was not asked for must not be agreed to (RFC 6455, section 4.1), which the library leaves to its
  // user.
  static bool HasUnaskedFor(const websocket::response_type& answer) {
    return answer.count(beast::http::field::sec_websocket_extensions) > 0 ||
           answer.count(beast::http::field::sec_websocket_protocol) > 0;
  }

  // Only now: before the other side has accepted the connection, the system does not know whose it is.
  void Begin(const ConnectionPtr& connection) {
    error_code error;
    const auto local = beast::get_lowest_layer(connection->stream).socket().local_endpoint(error);
    if (error || !os::IsLoopbackServerSameUser(local.port(), connection->endpoint.port())) {
      Lose(connection, connection->host + " does not belong to the user of this guard");
      return;
    }
    retry_ = options_.first_retry;
    last_reason_.clear();
    {
      const os::MutexLock lock(mutex_);
      connected_ = true;
      connection_ = connection;
    }
    TOLM_LOG(Tolm::Base::kLogLevelInfo, kTag, "connected to %s", connection->host.c_str());
    handlers_.on_connected();
    Read(connection);
  }

  void Read(const ConnectionPtr& connection) {
    connection->stream.async_read(
        connection->received, [this, connection](const error_code& error, std::size_t) {
          if (error) {
            Lose(connection, "the connection to " + connection->host + " has ended: " + error.message());
            return;
          }
          if (connection->stream.got_text()) {
            handlers_.on_text(beast::buffers_to_string(connection->received.data()));
          } else {
            TOLM_LOG(Tolm::Base::kLogLevelWarning, kTag, "a binary message of the frame is ignored");
          }
          connection->received.consume(connection->received.size());
          if (connection->received.capacity() > kKeptBuffer) connection->received.shrink_to_fit();
          Read(connection);
        });
  }

  void Write(const ConnectionPtr& connection) {
    {
      const os::MutexLock lock(mutex_);
      if (connection != connection_) return;
      writing_ = !queue_.empty();
      if (writing_) {
        connection->sent = std::move(queue_.front());
        queue_.pop_front();
        queued_bytes_ -= connection->sent.size();
      }
    }
    if (connection->sent.empty()) {
      if (stopping_) Close();
      return;
    }
    connection->stream.async_write(
        asio::buffer(connection->sent), [this, connection](const error_code& error, std::size_t) {
          if (error) {
            Lose(connection, connection->host + " cannot be written to: " + error.message());
            return;
          }
          connection->sent.clear();
          Write(connection);
        });
  }

  // Each reason is logged when it is another one than before: a frame may stay away for days.
  void Retry(const std::string& why) {
    if (stopping_) return;
    if (why != last_reason_) {
      TOLM_LOG(Tolm::Base::kLogLevelWarning, kTag, "%s", why.c_str());
      last_reason_ = why;
    }
    timer_.expires_after(retry_);
    retry_ = std::min(retry_ * 2, options_.longest_retry);
    timer_.async_wait([this](const error_code& error) {
      if (!error) Connect();
    });
  }

  void Lose(const ConnectionPtr& connection, const std::string& why) {
    if (connection != current_) return;  // its other half has said so
    current_.reset();
    bool was_connected = false;
    std::size_t unsent = 0;
    {
      const os::MutexLock lock(mutex_);
      was_connected = std::exchange(connected_, false);
      connection_.reset();
      unsent = queue_.size() + (writing_ ? 1 : 0);
      queue_.clear();
      queued_bytes_ = 0;
      writing_ = false;
    }
    beast::get_lowest_layer(connection->stream).close();
    if (unsent > 0) {
      TOLM_LOG(Tolm::Base::kLogLevelWarning, kTag, "%zu messages to the frame are lost with the connection",
               unsent);
    }
    if (stopping_) {
      context_.stop();
      return;
    }
    owes_loss_ = owes_loss_ || was_connected;
    TellLoss();
    Retry(why);
  }

  void TellLoss() {
    if (!owes_loss_) return;
    handlers_.on_lost();
    owes_loss_ = false;
  }

  // Once nothing is queued, with the closing handshake, for which the frame has a moment.
  void Close() {
    if (!std::exchange(stopping_, true)) {
      timer_.cancel();
      close_timer_.expires_after(kCloseTimeOut);
      close_timer_.async_wait([this](const error_code&) { context_.stop(); });
    }
    {
      const os::MutexLock lock(mutex_);
      if (connected_ && writing_) return;
      // What comes from now on has nobody to arrive at.
      if (!std::exchange(connected_, false)) {
        context_.stop();
        return;
      }
    }
    current_->stream.async_close(websocket::close_code::going_away,
                                 [this, connection = current_](const error_code&) { context_.stop(); });
  }

  // Whether there is nothing more to do. A shortage of memory costs the connection, not the link; and it may
  // last, so that giving the connection up is tried again as well.
  bool RunOnce() {
    try {
      if (failed_) GiveUp();
      failed_ = false;
      context_.run();
      return true;
    } catch (const std::exception& error) {
      TOLM_LOG(Tolm::Base::kLogLevelWarning, kTag, "the connection is given up: %s", error.what());
      failed_ = true;
      return false;
    }
  }

  void GiveUp() {
    if (stopping_) {
      context_.stop();
    } else if (const ConnectionPtr lost = current_) {  // a copy: current_ goes before the rest of it
      Lose(lost, "the connection was given up");
    } else {
      TellLoss();
      Retry("the connection was given up");
    }
  }

  const FrameLinkOptions options_;
  const FrameLinkHandlers handlers_;

  asio::io_context context_{1};
  asio::steady_timer timer_;
  asio::steady_timer close_timer_;
  Milliseconds retry_;
  std::string last_reason_;
  ConnectionPtr current_;
  bool stopping_ = false;
  bool failed_ = false;     // the last run ended with an exception
  bool owes_loss_ = false;  // on_lost has not been called yet

  os::Mutex mutex_;
  bool connected_ TOLM_GUARDED_BY(mutex_) = false;
  ConnectionPtr connection_ TOLM_GUARDED_BY(mutex_);
  std::deque<std::string> queue_ TOLM_GUARDED_BY(mutex_);
  std::size_t queued_bytes_ TOLM_GUARDED_BY(mutex_) = 0;
  bool writing_ TOLM_GUARDED_BY(mutex_) = false;  // a Write is under way or posted

  std::thread thread_;
};

FrameLink::FrameLink(FrameLinkOptions options, FrameLinkHandlers handlers)
    : impl_(std::make_unique<Impl>(std::move(options), std::move(handlers))) {}

FrameLink::~FrameLink() {
  impl_->Stop();
}

void FrameLink::Start() {
  impl_->Start();
}

void FrameLink::Stop() {
  impl_->Stop();
}

bool FrameLink::Send(std::string text) {
  return impl_->Send(std::move(text));
}

}  // namespace guard
