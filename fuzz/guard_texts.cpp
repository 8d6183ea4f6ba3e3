// Any text from the frame to the guard: it is one of the messages, with what they must have, or the reason
// why not is told in a line for the log. What the guard says, the frame's reader finds.

#include <algorithm>
#include <type_traits>

#include "GuardMessages.h"
#include "TolmProto/RapidJsonProto.h"
#include "support/Input.h"

namespace {

using fuzz::Require;

constexpr std::size_t kLongestReason = 400;

struct Look {
  void operator()(const guard::StartPlugin& start) const {
    Require(!start.plugin.empty(), "a plugin has a name");
  }
  void operator()(const guard::StopPlugin& stop) const {
    Require(!stop.plugin.empty(), "a plugin has a name");
  }
  void operator()(const guard::MainProcessPath& answer) const {
    Require(!answer.path.empty(), "a path is one");
  }
  void operator()(const guard::SetProtection& list) const { Flags(list.plugins); }
  void operator()(const guard::InitStates& list) const { Flags(list.plugins); }
  template <typename Other>
  void operator()(const Other&) const {}

  template <typename List>
  static void Flags(const List& list) {
    for (const auto& [name, flag] : list) Require(!name.empty(), "a listed plugin has a name");
  }
};

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  guard::FrameMessage message;
  std::string why;
  if (guard::ParseFrameMessage(text, message, why)) {
    std::visit(Look(), message.says);
  } else {
    Require(!why.empty() && why.size() <= kLongestReason, "the reason is told, in bounded length");
    Require(std::none_of(why.begin(), why.end(), IsControl), "the reason is one line");
  }

  proto::CRapidJsonProto said;
  Require(said.set_str(guard::BuildProcessEnded(text)) && said.get_v("/requestData/processId", "-") == text,
          "the frame reads which plugin has ended");
  for (const std::string& reply :
       {guard::BuildFrameStartedReply(text), guard::BuildSetProtectionReply(text)}) {
    Require(said.set_str(reply) && said.get_v("/guid", "-") == text, "the frame reads whom a reply is for");
  }
  return 0;
}
