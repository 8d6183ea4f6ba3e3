#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "TolmProto/RapidJsonProto.h"

namespace TolmLPCFrame {

/// Whether a JSON text may have more than `most` values; of a text that is no JSON either may be said. Each
/// value costs a parser many times the byte or two that it needs in the text.
bool HasMoreValuesThan(std::size_t most, std::string_view text) noexcept;

/// Replaces `message` by the document of somebody else's message. False, and an empty document, when it is no
/// JSON, or has too many values for its length (docs/limits.md), which the log says.
bool ReadMessage(proto::CRapidJsonProto& message, const std::string& text);

}  // namespace TolmLPCFrame
