#pragma once

// Base64 many groups at a time, where the processor has a way to. What these leave is done group by group.
// Twin files: x86/ and portable/.

#include <cstddef>

namespace Tolm::Base::Encrypt {

/// Encodes from the front of the `count` bytes: 4 characters for every 3 bytes. How many bytes it has done,
/// whole groups of them; maybe none.
std::size_t EncodeBlocks(char* text, const char* bytes, std::size_t count);

/// Decodes from the front of the `count` characters, of which 4 fill 3 bytes. How many characters it has
/// done, whole groups of them; maybe none. It stops short of a character that is not in the alphabet.
/// `bytes` may be where `text` is.
/// REQUIRES: there is room for count / 4 * 3 bytes; those behind the last group may be written over.
std::size_t DecodeBlocks(char* bytes, const char* text, std::size_t count);

}  // namespace Tolm::Base::Encrypt
