// A sequence of what plugins and the host may do, good and bad, played against a frame over its Unix socket:
// plugins that connect, register, call, answer, cancel, break the rules, are killed and come back under the
// same id, while the host calls them. Afterwards the frame is as it was before.

#include <array>
#include <memory>

#include "support/LiveFrame.h"
#include "support/OtherEnd.h"
#include "support/SilentLog.h"

namespace {

using fuzz::FrameBytes;
using lpc::wire::FrameType;

constexpr std::size_t kMostActions = 32;
constexpr int kMostCalls = 3;
constexpr const char* kIds[] = {"a", "b", "c"};

/// The payload of a message that is whole.
std::string MessageBytes(const std::string& body, const LpcParams& params) {
  lpc::wire::OutgoingMessage message;
  message.dst_id = "0";
  message.params = &params;
  message.body = {body};
  return EncodeHead(message, 0) + body;
}

class Sequence {
 public:
  Sequence(fuzz::LiveFrame& frame, fuzz::Input& input) : frame_(frame), input_(input) {}

  void Play() {
    for (std::size_t i = 0; i < kMostActions && !input_.empty(); ++i) {
      const unsigned action = input_.Byte();
      Act(action % 16, action / 16 % std::size(kIds), action / 64);
    }
  }

 private:
  struct Peer {
    std::unique_ptr<fuzz::OtherEnd> end;
    std::unique_ptr<fuzz::OtherEnd> rival;  // asks for the same id
  };

  static std::string UrlOf(std::size_t peer) { return std::string("/of/") + kIds[peer]; }

  std::unique_ptr<fuzz::OtherEnd> Connect(std::size_t peer) {
    auto connected = os::SystemTransport().Connect(fuzz::LiveFrame::kEndpoint);
    if (!connected.value) return nullptr;
    auto end = std::make_unique<fuzz::OtherEnd>(std::move(connected.value));
    lpc::wire::Hello hello;
    hello.id = kIds[peer];
    end->Write(FrameBytes(FrameType::kHello, EncodeHello(hello)));
    return end;
  }

  void Say(FrameType type, const std::string& body, const LpcParams& params, std::uint64_t id = 0) {
    end_->Write(FrameBytes(type, MessageBytes(body, params), id));
  }

  void Act(unsigned what, std::size_t peer, unsigned variant) {
    Peer& own = peers_[peer];
    if (what == 0) {
      if (own.end == nullptr) {
        own.end = Connect(peer);
      } else {
        own.rival = Connect(peer);
      }
      // Often its answer is waited for.
      while (variant < 3 && own.rival == nullptr && own.end && own.end->frames() == 0 &&
             own.end->TakeAnswers()) {
        std::this_thread::yield();
      }
      return;
    }
    if (what == 1) return HostActs(peer, variant);
    end_ = own.end.get();
    if (end_ != nullptr) PeerActs(what, peer, variant);
  }

  void HostActs(std::size_t peer, unsigned variant) {
    if (variant < 2) {
      if (++calls_ <= kMostCalls)
        frame_.Call(UrlOf(peer), variant == 0 ? 2 : static_cast<int>(input_.Byte() % 32));
      return;
    }
    TolmLPCFrame::LPCData data;
    data.msg_type = variant == 2 ? TolmLPCFrame::kMsgTypeRequest : TolmLPCFrame::kMsgTypeNotify;
    data.url = UrlOf(peer);
    std::uint64_t id = 0;
    TolmLPCFrame::AsyncSend(id, data);
  }

  void PeerActs(unsigned what, std::size_t peer, unsigned variant) {
    switch (what) {
      case 2:
        return Say(FrameType::kNotify,
                   R"({"RegisterInfo":{"SupportUrlList":[{"Url":")" + UrlOf(peer) + R"(","Timeout":5000}]}})",
                   {{"url", "/QOMI/Vantrel/Integration/V1/Register"}});
      case 3:
        return Say(FrameType::kNotify, R"({"method":"InitFinish","Data":{"InitCostTime":1}})", {});
      case 4:
        return Say(FrameType::kRequest, "question", {{"url", "/host/echo"}}, input_.Byte());
      case 5:
        return Say(FrameType::kRequest, "question",
                   {{"url", UrlOf(input_.Byte() % std::size(kIds))}, {"timeout", "3"}}, input_.Byte());
      case 6:
        return Say(FrameType::kNotify, "", {{"url", UrlOf(variant % std::size(kIds))}});
      case 7:
        end_->TakeAnswers();
        return Say(FrameType::kReply, "answer", {}, variant == 0 ? input_.Byte() : end_->TakeRequest());
      case 8:
        return end_->Write(FrameBytes(FrameType::kCancel, {}, input_.Byte()));
      case 9:
        end_->TakeAnswers();
        return end_->Write(
            FrameBytes(FrameType::kUndeliverable, lpc::wire::EncodeNotice({11, "no"}), end_->TakeRequest()));
      case 10:
        return end_->Write(FrameBytes(variant % 2 == 0 ? FrameType::kPing : FrameType::kPong, {}));
      case 11:
        if (variant == 0) end_->Write(FrameBytes(FrameType::kGoodbye, lpc::wire::EncodeNotice({0, "bye"})));
        peers_[peer] = {};
        return;
      case 12:
        return end_->Write(input_.Bytes(input_.Byte() % 64));
      case 13:
        return Say(FrameType::kNotify, input_.Bytes(input_.Byte() % 64), {});
      case 14:
        return Say(FrameType::kNotify, "{}",
                   {{"pushMsgTag", "tag"}, {"httpHeaders", input_.Bytes(variant * 8)}});
      default:
        end_->TakeAnswers();
        return;
    }
  }

  fuzz::LiveFrame& frame_;
  fuzz::Input& input_;
  std::array<Peer, std::size(kIds)> peers_;
  fuzz::OtherEnd* end_ = nullptr;
  int calls_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static auto& frame = *new fuzz::LiveFrame({std::begin(kIds), std::end(kIds)});
  fuzz::Input input(data, size);
  frame.ForgetStates();
  Sequence(frame, input).Play();
  frame.RequireQuiet();
  return 0;
}
