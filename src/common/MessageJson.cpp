#include "common/MessageJson.h"

#include "TolmBase/LogLine.h"
#include "common/Constants.h"

namespace TolmLPCFrame {
namespace {

constexpr std::size_t kFewValues = 262'144;
// What serves a purpose has a name, and rarely takes less.
constexpr std::size_t kBytesOfAValue = 8;

}  // namespace

bool HasMoreValuesThan(std::size_t most, std::string_view text) noexcept {
  // None takes less than a byte and what parts it from the next one.
  if (text.size() / 2 < most) return false;
  std::size_t values = 1;
  bool in_string = false;
  for (std::size_t at = 0; at < text.size() && values <= most; ++at) {
    const char c = text[at];
    if (in_string && c == '\\') {
      ++at;
    } else if (c == '"') {
      in_string = !in_string;
    } else if (!in_string && (c == ',' || c == '[' || c == '{')) {
      ++values;
    }
  }
  return values > most;
}

bool ReadMessage(proto::CRapidJsonProto& message, const std::string& text) {
  if (HasMoreValuesThan(kFewValues + text.size() / kBytesOfAValue, text)) {
    TOLM_LOG(Tolm::Base::kLogLevelError, kTagError,
             "a message of %zu bytes is not read, for it has too many values", text.size());
    message.set_str("");
    return false;
  }
  return message.set_str(text);
}

}  // namespace TolmLPCFrame
