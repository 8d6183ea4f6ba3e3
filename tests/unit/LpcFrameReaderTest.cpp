#include "wire/FrameReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "TolmLPCServer/LpcError.h"
#include "wire/Bytes.h"

namespace lpc::wire {
namespace {

std::string Frame(FrameType type, std::string_view payload, std::uint64_t id = 0, std::uint8_t flags = 0,
                  std::uint16_t stream = 0) {
  FrameHeader header;
  header.payload_size = static_cast<std::uint32_t>(payload.size());
  header.type = type;
  header.flags = flags;
  header.stream = stream;
  header.message_id = id;
  const HeaderBytes bytes = EncodeHeader(header);
  return std::string(bytes.data(), bytes.size()).append(payload);
}

std::string Message(const std::string& body, const LpcParams& params = {{"k", "v"}}) {
  OutgoingMessage message;
  message.dst_id = "0";
  message.src_id = "me";
  message.params = &params;
  message.body = {body};
  message.time_out_ms = 99;
  return EncodeHead(message, 0) + body;
}

// A reader and what it found, as text: "REQUEST 7 body", "control 5 payload".
class Found final : public FrameSink {
 public:
  explicit Found(const Options& options = {}) : options_(options), reader(options_) {
    reader.AcceptMessages();
  }

  void OnControlFrame(const FrameHeader& header, std::string_view payload) override {
    found.push_back("control " + std::to_string(static_cast<int>(header.type)) + " " + std::string(payload));
  }
  void OnMessage(InboundMessage&& message) override {
    found.push_back("message " + std::to_string(static_cast<int>(message.type)) + " " +
                    std::to_string(message.id) + " " + message.dst_id + " " + message.src_id + " " +
                    std::to_string(message.params.size()) + " " + std::to_string(message.time_out_ms) + " " +
                    message.body);
  }
  bool Feed(std::string_view bytes) { return reader.Feed(bytes, *this); }
  /// As a connection does it: to the place of a body where there is one.
  bool FeedToItsPlace(std::string_view bytes) {
    while (!bytes.empty()) {
      reader.ReadToPlace(
          [&bytes](FrameReader::Place place) {
            const std::size_t direct = bytes.copy(place.data, place.size);
            bytes.remove_prefix(direct);
            return direct;
          },
          *this);
      const std::size_t fed = std::min({bytes.size(), std::size_t{100}, reader.NeededForFrame()});
      if (!Feed(bytes.substr(0, fed))) return false;
      bytes.remove_prefix(fed);
    }
    return reader.violation().empty();
  }

 private:
  const Options options_;

 public:
  FrameReader reader;
  std::vector<std::string> found;
};

// One of everything that may come.
std::string AllSorts() {
  const std::string large = Message("a body in three pieces");
  return Frame(FrameType::kPing, "") + Frame(FrameType::kNotify, Message("whole")) +
         Frame(FrameType::kRequest, large.substr(0, 5), 7, kFlagMore | kFlagWaiting, 300) +
         Frame(FrameType::kGoodbye, "control payload") +
         Frame(FrameType::kChunk, large.substr(5, 30), 0, kFlagMore, 300) +
         Frame(static_cast<FrameType>(200), "skipped") + Frame(FrameType::kReply, Message(""), 8) +
         Frame(FrameType::kChunk, "", 0, kFlagMore, 300) +
         Frame(FrameType::kChunk, large.substr(35), 0, 0, 300) + Frame(FrameType::kCancel, "");
}

const std::vector<std::string> kAllSorts = {"control 5 ",
                                            "message 18 0 0 me 1 99 whole",
                                            "control 4 control payload",
                                            "message 17 8 0 me 1 99 ",
                                            "message 16 7 0 me 1 99 a body in three pieces",
                                            "control 20 "};

TEST(LpcFrameReader, TakesEverythingAtOnce) {
  Found all;
  EXPECT_TRUE(all.Feed(AllSorts()));
  EXPECT_EQ(all.found, kAllSorts);
  EXPECT_EQ(all.reader.held_bytes(), 0u);
}

TEST(LpcFrameReader, TakesBytesOneByOne) {
  Found all;
  for (const char c : AllSorts()) ASSERT_TRUE(all.Feed({&c, 1}));
  EXPECT_EQ(all.found, kAllSorts);
  EXPECT_EQ(all.reader.held_bytes(), 0u);
}

TEST(LpcFrameReader, TakesTwoPiecesHoweverTheyAreCut) {
  const std::string bytes = AllSorts();
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    Found all;
    EXPECT_TRUE(all.Feed(std::string_view(bytes).substr(0, cut)));
    EXPECT_TRUE(all.Feed(std::string_view(bytes).substr(cut)));
    ASSERT_EQ(all.found, kAllSorts) << cut;
  }
}

TEST(LpcFrameReader, NeverNeedsMoreThanTheFrameThatIsUnderWay) {
  const std::string bytes = AllSorts();
  Found all;
  std::size_t at = 0;
  std::size_t frames = 0;
  while (at < bytes.size()) {
    const std::size_t needed = all.reader.NeededForFrame();
    ASSERT_GT(needed, 0u);
    ASSERT_LE(at + needed, bytes.size());
    ASSERT_TRUE(all.Feed(std::string_view(bytes).substr(at, needed)));
    at += needed;
    if (all.reader.NeededForFrame() == kHeaderSize) ++frames;
  }
  EXPECT_EQ(frames, 10u);
  EXPECT_EQ(all.found, kAllSorts);
}

TEST(LpcFrameReader, ReadsLongBodiesToTheirPlaces) {
  for (const std::size_t size : {16u << 10, 100'000u, 1'000'000u}) {
    const std::string body(size, 'b');
    const std::string message = Message(body);
    std::string frames = Frame(FrameType::kNotify, Message("before"));
    for (std::size_t at = 0; at < message.size(); at += kChunkPayload) {
      const bool last = at + kChunkPayload >= message.size();
      const bool whole = last && at == 0;
      frames +=
          Frame(at == 0 ? FrameType::kNotify : FrameType::kChunk,
                std::string_view(message).substr(at, kChunkPayload), 0, last ? 0 : kFlagMore, whole ? 0 : 1);
      if (!last) frames += Frame(FrameType::kNotify, Message("between"));
    }
    frames += Frame(FrameType::kNotify, Message("behind"));
    Found all;
    ASSERT_TRUE(all.FeedToItsPlace(frames));
    EXPECT_EQ(all.found.front(), "message 18 0 0 me 1 99 before");
    EXPECT_EQ(all.found.back(), "message 18 0 0 me 1 99 behind");
    EXPECT_EQ(all.found[all.found.size() - 2], "message 18 0 0 me 1 99 " + body);
    EXPECT_EQ(all.reader.held_bytes(), 0u);
  }
}

TEST(LpcFrameReader, GivesBackWhatWasNotFilledOfAPlace) {
  const std::string body(50'000, 'b');
  const std::string frame = Frame(FrameType::kNotify, Message(body));
  Found all;
  ASSERT_TRUE(all.Feed(std::string_view(frame).substr(0, 100)));
  std::size_t at = 100;
  for (const std::size_t part : {0u, 1u, 20'000u, 0u, 13'000u}) {
    const auto fill_a_part = [&](FrameReader::Place place) {
      EXPECT_EQ(place.size, frame.size() - at);
      return frame.copy(place.data, part, at);
    };
    ASSERT_TRUE(all.reader.ReadToPlace(fill_a_part, all));
    at += part;
  }
  ASSERT_TRUE(all.Feed(std::string_view(frame).substr(at)));
  ASSERT_EQ(all.found.size(), 1u);
  EXPECT_EQ(all.found[0], "message 18 0 0 me 1 99 " + body);
}

TEST(LpcFrameReader, AllocatesWhatHasArrivedAndNotWhatIsStated) {
  std::string prefix(kPrefixSize, '\0');
  const std::string meta = Message("").substr(kPrefixSize);
  ByteWriter writer(prefix.data());
  writer.Number(static_cast<std::uint32_t>(meta.size()));
  writer.Number(std::uint32_t{100u << 20});
  Found all;
  ASSERT_TRUE(all.Feed(Frame(FrameType::kNotify, prefix + meta, 0, kFlagMore, 1)));
  EXPECT_EQ(all.reader.held_bytes(), prefix.size() + meta.size());
  EXPECT_FALSE(all.reader.ReadToPlace([](FrameReader::Place) { return std::size_t{0}; }, all))
      << "between two frames there is no place";
}

TEST(LpcFrameReader, BoundsIncompleteMessagesInEitherWayOfReading) {
  Options options;
  options.max_message_bytes = 200'000;
  options.max_queue_bytes = 100'000;
  for (const bool direct : {false, true}) {
    Found all(options);
    const std::string begin = Message(std::string(150'000, 'h')).substr(0, 100);
    const std::string piece(50'000, 'h');
    std::size_t sent = 0;
    bool taken = true;
    for (std::uint16_t stream = 1; taken && stream <= 10; ++stream) {
      taken = all.Feed(Frame(FrameType::kNotify, begin, 0, kFlagMore, stream));
      sent += begin.size();
    }
    ASSERT_TRUE(taken);
    // Two pieces of each of the ten; no message is complete with that.
    for (std::uint16_t i = 0; taken && i < 20; ++i) {
      const std::string frame =
          Frame(FrameType::kChunk, piece, 0, kFlagMore, static_cast<std::uint16_t>(i % 10 + 1));
      taken = direct ? all.FeedToItsPlace(frame) : all.Feed(frame);
      if (taken) sent += piece.size();
    }
    EXPECT_FALSE(taken);
    EXPECT_EQ(sent, 451'000u) << "one piece more would be above twice a message and a queue";
    EXPECT_EQ(all.reader.violation_code(), kMessageTooLarge);
  }
}

TEST(LpcFrameReader, TakesNoMessageBeforeTheHandshake) {
  const Options options;
  for (const FrameType type :
       {FrameType::kRequest, FrameType::kReply, FrameType::kNotify, FrameType::kChunk}) {
    FrameReader reader(options);
    Found sink;
    EXPECT_FALSE(reader.Feed(Frame(type, Message("x")), sink));
    EXPECT_EQ(reader.violation_code(), kProtocol);
    EXPECT_TRUE(sink.found.empty());
  }
}

TEST(LpcFrameReader, SkipsOptionalTypesAndStopsAtRequiredOnes) {
  for (int type = 0; type < 256; ++type) {
    if (CarriesMessage(static_cast<FrameType>(type))) continue;
    const bool known = (type >= 1 && type <= 6) || type == 20 || type == 21;
    Found all;
    EXPECT_EQ(all.Feed(Frame(static_cast<FrameType>(type), "payload")), known || type >= kFirstOptionalType)
        << type;
    EXPECT_EQ(all.found.size(), known ? 1u : 0u) << type;
  }
}

TEST(LpcFrameReader, LimitsOfFramesHoldToTheByte) {
  const auto begins = [](FrameType type, std::size_t size) {
    FrameHeader header;
    header.payload_size = static_cast<std::uint32_t>(size);
    header.type = type;
    const HeaderBytes bytes = EncodeHeader(header);
    Found all;
    return all.Feed({bytes.data(), bytes.size()});
  };
  EXPECT_TRUE(begins(FrameType::kPing, kMaxControlPayload));
  EXPECT_FALSE(begins(FrameType::kPing, kMaxControlPayload + 1));
  EXPECT_TRUE(begins(FrameType::kNotify, kMaxFramePayload));
  EXPECT_FALSE(begins(FrameType::kNotify, kMaxFramePayload + 1));
  EXPECT_TRUE(begins(static_cast<FrameType>(255), kMaxFramePayload));
  EXPECT_FALSE(begins(static_cast<FrameType>(255), kMaxFramePayload + 1));
  EXPECT_FALSE(begins(FrameType::kNotify, 0xFFFFFFFF));
}

TEST(LpcFrameReader, LimitsOfMessagesHoldToTheByte) {
  const std::string message = Message("body");
  Options options;
  options.max_message_bytes = message.size();
  Found fits(options);
  EXPECT_TRUE(fits.Feed(Frame(FrameType::kNotify, message)));
  options.max_message_bytes = message.size() - 1;
  Found does_not(options);
  EXPECT_FALSE(does_not.Feed(Frame(FrameType::kNotify, message)));
  EXPECT_EQ(does_not.reader.violation_code(), kMessageTooLarge);
}

// One field broken at a time.
TEST(LpcFrameReader, StopsAtEveryBrokenField) {
  const std::string message = Message("body");
  const std::string begin = Frame(FrameType::kNotify, message.substr(0, 20), 0, kFlagMore, 4);
  const auto with = [&](std::size_t at, std::uint32_t value) {
    std::string broken = message;
    StoreNumber(broken.data() + at, value);
    return Frame(FrameType::kNotify, broken);
  };
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"meta size one more", with(0, LoadNumber<std::uint32_t>(message.data()) + 1)},
      {"meta size one less", with(0, LoadNumber<std::uint32_t>(message.data()) - 1)},
      {"meta size none", with(0, 0)},
      {"meta size all", with(0, 0xFFFFFFFF)},
      {"body size one more", with(4, 5)},
      {"body size one less", with(4, 3)},
      {"body size all", with(4, 0xFFFFFFFF)},
      {"count one more", with(kPrefixSize + 7, 2)},
      {"count one less", with(kPrefixSize + 7, 0)},
      {"key size one more", with(kPrefixSize + 11, 2)},
      {"empty", Frame(FrameType::kNotify, "")},
      {"half a prefix", Frame(FrameType::kNotify, message.substr(0, 6))},
      {"whole with a stream number", Frame(FrameType::kNotify, message, 0, 0, 1)},
      {"more without a stream number", Frame(FrameType::kNotify, message, 0, kFlagMore, 0)},
      {"chunk of nothing", Frame(FrameType::kChunk, message, 0, 0, 4)},
      {"chunk of another number", begin + Frame(FrameType::kChunk, message.substr(20), 0, 0, 5)},
      {"stream number in use", begin + begin},
      {"one byte too few at the end",
       begin + Frame(FrameType::kChunk, message.substr(20, message.size() - 21), 0, 0, 4)},
      {"one byte too many at the end", begin + Frame(FrameType::kChunk, message.substr(20) + "x", 0, 0, 4)},
      {"one byte too many before the end",
       begin + Frame(FrameType::kChunk, message.substr(20) + "x", 0, kFlagMore, 4)},
  };
  for (const auto& [what, bytes] : cases) {
    Found all;
    EXPECT_FALSE(all.Feed(bytes)) << what;
    EXPECT_FALSE(all.reader.violation().empty()) << what;
    EXPECT_NE(all.reader.violation_code(), kOk) << what;
    EXPECT_TRUE(all.found.empty()) << what;
    EXPECT_FALSE(all.Feed(Frame(FrameType::kPing, ""))) << what << ", and nothing is taken any more";
    EXPECT_TRUE(all.found.empty()) << what;
  }
}

TEST(LpcFrameReader, AStreamNumberIsFreeAgainBehindTheLastChunk) {
  const std::string message = Message("body");
  Found all;
  for (int i = 0; i < 5000; ++i) {
    ASSERT_TRUE(all.Feed(Frame(FrameType::kNotify, message.substr(0, 9), 0, kFlagMore, 1) +
                         Frame(FrameType::kChunk, message.substr(9), 0, 0, 1)));
  }
  EXPECT_EQ(all.found.size(), 5000u);
  EXPECT_EQ(all.reader.held_bytes(), 0u);
}

TEST(LpcFrameReader, BoundsTheNumberOfIncompleteMessages) {
  Found all;
  bool taken = true;
  int count = 0;
  for (std::uint16_t stream = 1; taken && stream < 5000; ++stream) {
    taken = all.Feed(Frame(FrameType::kNotify, "x", 0, kFlagMore, stream));
    if (taken) ++count;
  }
  EXPECT_EQ(count, 1024);
}

}  // namespace
}  // namespace lpc::wire
