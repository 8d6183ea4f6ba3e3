#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FrameEnd.h"
#include "PluginEnd.h"
#include "RawPeer.h"
#include "wire/Bytes.h"
#include "wire/Frame.h"
#include "wire/Message.h"

namespace tolm::test {

// A frame with a plugin that is served before, during and after what the bad peer does.
class Scene {
 public:
  explicit Scene(os::LocalTransport& transport, const lpc::Options& options = {})
      : transport_(transport), frame(transport, options) {
    EXPECT_EQ(frame.Listen(), lpc::kOk);
    bystander_ = std::make_unique<PluginEnd>(transport, "bystander");
    EXPECT_TRUE(bystander_->Meet(frame));
  }
  ~Scene() {
    EXPECT_TRUE(BystanderIsServed());
    EXPECT_EQ(frame.StatusesOf("bystander"), std::vector<std::string>{"connected"});
  }
  bool BystanderIsServed() {
    return bystander_->Ask("up") == lpc::kOk && frame.Ask("bystander", "down") == lpc::kOk;
  }
  /// The reason after a connection that begins with `bytes`.
  std::optional<lpc::wire::Notice> Knock(const std::string& bytes) {
    RawPeer raw(transport_);
    EXPECT_TRUE(raw.connected());
    raw.Write(bytes);
    return raw.ReadReason();
  }

 private:
  os::LocalTransport& transport_;

 public:
  FrameEnd frame;

 private:
  std::unique_ptr<PluginEnd> bystander_;
};

inline std::string HelloPayload(std::uint16_t lowest, std::uint16_t highest, const std::string& id) {
  lpc::wire::Hello hello;
  hello.lowest_version = lowest;
  hello.highest_version = highest;
  hello.id = id;
  return lpc::wire::EncodeHello(hello);
}

inline std::string StatedSize(std::string frame, std::uint32_t size) {
  lpc::wire::StoreNumber(frame.data(), size);
  return frame;
}

inline std::string Prefix(std::uint32_t meta, std::uint32_t body) {
  std::string prefix(lpc::wire::kPrefixSize, '\0');
  lpc::wire::ByteWriter writer(prefix.data());
  writer.Number(meta);
  writer.Number(body);
  return prefix;
}

}  // namespace tolm::test
