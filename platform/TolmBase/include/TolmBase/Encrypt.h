#pragma once

#include <string>
#include <string_view>

namespace Tolm::Base::Encrypt {

/// Base64 with the standard alphabet and padding (RFC 4648, section 4), no line breaks.
std::string Base64Encode(std::string_view bytes);
/// Appends the same to `text`.
void AppendBase64(std::string& text, std::string_view bytes);

/// The bytes behind a Base64 text. Strict, as RFC 4648 recommends: a foreign character, line breaks
/// included, a wrong length or misplaced padding yields the empty text. Only the unused bits of the
/// last character may have any value.
std::string Base64Decode(std::string_view text);
/// Puts those bytes in the place of `text`.
void Base64DecodeInPlace(std::string& text);

}  // namespace Tolm::Base::Encrypt
