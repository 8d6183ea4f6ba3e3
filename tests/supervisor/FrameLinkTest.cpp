#include "FrameEndpoint.h"
#include "FrameLink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <fstream>
#include <mutex>
#include <optional>
#include <vector>

#include "support/LogCapture.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"

namespace guard {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;
using testing::ElementsAre;
using tolm::test::WaitFor;

class Link : public testing::Test {
 protected:
  ~Link() override { link_.reset(); }  // until then it tells of events

  void WritePort(std::uint16_t port) const {
    std::ofstream(config()) << "<Config><ClientPort>" << port << "</ClientPort></Config>\n";
  }
  std::filesystem::path config() const { return directory_.path() / "LpcFrame.xml"; }

  void Start(FrameLinkOptions options = {}) {
    options.config = config();
    link_ = std::make_unique<FrameLink>(
        options, FrameLinkHandlers{.on_connected = [this] { Keep("connected"); },
                                   .on_text = [this](std::string text) { Keep("text " + text); },
                                   .on_lost = [this] { Keep("lost"); }});
    link_->Start();
  }
  void Connect(FrameLinkOptions options = {}) {
    WritePort(frame_.port());
    Start(options);
    ASSERT_TRUE(frame_.Accept());
    ASSERT_TRUE(HasEvents(1));
  }

  std::vector<std::string> Events() const {
    const std::lock_guard lock(mutex_);
    return events_;
  }
  bool HasEvents(std::size_t count) const {
    return WaitFor([&] { return Events().size() >= count; });
  }
  std::size_t CountInLog(const std::string& text) const {
    std::size_t count = 0;
    for (const auto& line : capture_.Lines()) count += line.text.find(text) != std::string::npos ? 1 : 0;
    return count;
  }

  const tolm::test::TempDirectory directory_;
  tolm::test::LogCapture capture_{3};
  FrameEndpoint frame_;
  std::unique_ptr<FrameLink> link_;

 private:
  void Keep(std::string event) {
    const std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }

  mutable std::mutex mutex_;
  std::vector<std::string> events_;
};

TEST_F(Link, AsksForTheUpgradeAsTheFrameWantsIt) {
  Connect();
  EXPECT_EQ(frame_.request().target(), "/");
  EXPECT_EQ(frame_.request()[http::field::host], "127.0.0.1:" + std::to_string(frame_.port()));
  EXPECT_EQ(frame_.request().count(http::field::origin), 0u);
}

TEST_F(Link, CarriesTextsInBothDirectionsInOrder) {
  Connect();
  for (int n = 0; n < 100; ++n) EXPECT_TRUE(link_->Send("to the frame " + std::to_string(n)));
  for (int n = 0; n < 100; ++n) EXPECT_EQ(frame_.Read(), "to the frame " + std::to_string(n));
  frame_.stream().text(true);
  for (int n = 0; n < 3; ++n) frame_.stream().write(asio::buffer("to the guard " + std::to_string(n)));
  ASSERT_TRUE(HasEvents(4));
  EXPECT_THAT(Events(),
              ElementsAre("connected", "text to the guard 0", "text to the guard 1", "text to the guard 2"));
}

TEST_F(Link, ReadsMessagesThatComeInSeveralFrames) {
  Connect();
  frame_.stream().text(true);
  frame_.stream().write_some(false, asio::buffer(std::string("one ")));
  frame_.stream().write_some(true, asio::buffer(std::string("text")));
  ASSERT_TRUE(HasEvents(2));
  EXPECT_EQ(Events()[1], "text one text");
}

TEST_F(Link, SendsALargeTextInOneFrame) {
  Connect();
  constexpr std::size_t kSize = 1u << 20;
  ASSERT_TRUE(link_->Send(std::string(kSize, 'x')));
  std::array<unsigned char, 10> header{};
  asio::read(frame_.stream().next_layer(), asio::buffer(header));
  EXPECT_EQ(header[0], 0x81) << "the last frame of a message, and a text";
  EXPECT_EQ(header[1], 0x80 | 127) << "masked, with a long length";
  std::uint64_t length = 0;
  for (std::size_t i = 2; i < header.size(); ++i) length = length << 8 | header[i];
  EXPECT_EQ(length, kSize);
}

TEST_F(Link, SendsNoTextThatTheFrameWouldHaveToEndTheConnectionFor) {
  Connect();
  EXPECT_FALSE(link_->Send("not UTF-8: \xff"));
  EXPECT_TRUE(link_->Send("a text"));
  EXPECT_EQ(frame_.Read(), "a text");
  EXPECT_EQ(CountInLog("is not UTF-8: dropped"), 1u);
}

TEST_F(Link, WantsNoExtensionOrSubprotocolThatItHasNotAskedFor) {
  WritePort(frame_.port());
  Start();
  for (const auto field : {http::field::sec_websocket_extensions, http::field::sec_websocket_protocol}) {
    ASSERT_TRUE(frame_.TakeRequest());
    error_code error;
    frame_.stream().set_option(
        websocket::stream_base::decorator([&](websocket::response_type& answer) { answer.set(field, "x"); }));
    frame_.stream().accept(frame_.request(), error);
    EXPECT_EQ(frame_.Read(), "");
  }
  ASSERT_TRUE(frame_.Accept());
  ASSERT_TRUE(HasEvents(1));
  EXPECT_THAT(Events(), ElementsAre("connected"));
  EXPECT_EQ(CountInLog("answers with an extension or a subprotocol"), 1u);
}

TEST_F(Link, SendsNothingWhileNobodyIsThere) {
  EXPECT_FALSE(FrameLink({.config = config()}, {}).Send("x"));
  Connect();
  frame_.Close();
  ASSERT_TRUE(HasEvents(2));
  EXPECT_FALSE(link_->Send("x"));
}

TEST_F(Link, ComesBackWhenTheConnectionIsLostAndReadsThePortAnew) {
  Connect();
  FrameEndpoint other;
  WritePort(other.port());
  frame_.Close();
  ASSERT_TRUE(other.Accept());
  ASSERT_TRUE(HasEvents(3));
  EXPECT_THAT(Events(), ElementsAre("connected", "lost", "connected"));
  ASSERT_TRUE(link_->Send("again"));
  EXPECT_EQ(other.Read(), "again");
}

TEST_F(Link, ComesBackWhenTheFrameClosesInOrder) {
  Connect();
  error_code ignored;
  frame_.stream().close(websocket::close_code::normal, ignored);
  ASSERT_TRUE(frame_.Accept());
  ASSERT_TRUE(HasEvents(3));
  EXPECT_THAT(Events(), ElementsAre("connected", "lost", "connected"));
}

TEST_F(Link, SaysEachReasonWhyThereIsNoConnectionOnce) {
  Start();
  ASSERT_TRUE(WaitFor([&] { return CountInLog(" is missing, empty") == 1; }));
  // Taken, so that nobody else listens there meanwhile.
  asio::io_context context;
  const tcp::socket taken(context, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
  const std::uint16_t nobody = taken.local_endpoint().port();
  WritePort(nobody);
  ASSERT_TRUE(
      WaitFor([&] { return CountInLog("no frame listens at 127.0.0.1:" + std::to_string(nobody)) == 1; }));
  WritePort(frame_.port());
  for (int n = 0; n < 3; ++n) {
    ASSERT_TRUE(frame_.TakeRequest());
    http::response<http::empty_body> refusal(http::status::forbidden, 11);
    http::write(frame_.stream().next_layer(), refusal);
    frame_.Close();
  }
  ASSERT_TRUE(frame_.Accept());
  ASSERT_TRUE(HasEvents(1));
  EXPECT_EQ(CountInLog(" refuses the connection: "), 1u);
  EXPECT_EQ(CountInLog(" is missing, empty"), 1u);
  EXPECT_EQ(CountInLog("no frame listens at "), 1u);
}

TEST_F(Link, AnswersPings) {
  Connect();
  std::string pong;
  frame_.stream().control_callback([&](websocket::frame_type type, beast::string_view payload) {
    if (type == websocket::frame_type::pong) pong = std::string(payload);
  });
  frame_.stream().ping("are you there");
  // Texts are read until the answer has come by.
  ASSERT_TRUE(WaitFor([&] {
    link_->Send("tick");
    return frame_.Read() == "tick" && !pong.empty();
  }));
  EXPECT_EQ(pong, "are you there");
}

TEST_F(Link, GivesUpAConnectionOnWhichNobodyAnswers) {
  FrameLinkOptions options;
  options.ping_interval = Milliseconds(100);
  Connect(options);
  // Nothing is read here, so no ping is answered.
  ASSERT_TRUE(HasEvents(2));
  EXPECT_EQ(Events()[1], "lost");
}

TEST_F(Link, ABinaryMessageIsIgnoredAndTheConnectionStays) {
  Connect();
  frame_.stream().binary(true);
  frame_.stream().write(asio::buffer(std::string("bytes")));
  frame_.stream().text(true);
  frame_.stream().write(asio::buffer(std::string("a text")));
  ASSERT_TRUE(HasEvents(2));
  EXPECT_EQ(Events()[1], "text a text");
  EXPECT_EQ(CountInLog("a binary message of the frame is ignored"), 1u);
}

TEST_F(Link, StopClosesInOrderAfterWhatWasSent) {
  Connect();
  for (int n = 0; n < 50; ++n) ASSERT_TRUE(link_->Send("last words"));
  link_->Stop();
  for (int n = 0; n < 50; ++n) EXPECT_EQ(frame_.Read(), "last words");
  EXPECT_EQ(frame_.Read(), "");
  EXPECT_EQ(frame_.stream().reason().code, websocket::close_code::going_away);
  EXPECT_FALSE(link_->Send("too late"));
  EXPECT_THAT(Events(), ElementsAre("connected")) << "nobody is told of an end that was wanted";
  link_->Stop();
}

TEST_F(Link, StopDoesNotWaitForAFrameThatIsNotThere) {
  Start();
  link_->Stop();
  Start();
  WritePort(frame_.port());
  ASSERT_TRUE(frame_.TakeRequest()) << "and never answered";
  const auto begin = std::chrono::steady_clock::now();
  link_->Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4))
      << "the handshake may take 5 s";
}

}  // namespace
}  // namespace guard
