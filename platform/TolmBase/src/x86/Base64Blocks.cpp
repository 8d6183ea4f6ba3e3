#include "../Base64Blocks.h"

#include <tmmintrin.h>

// Sixteen characters at a time: what is a table look-up for each character becomes one shuffle of sixteen
// small tables. No wider registers: MinGW does not align them on the stack.

namespace Tolm::Base::Encrypt {
namespace {

const bool g_has_shuffle = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("ssse3") != 0;
}();

__m128i Load(const char* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

void Store(char* to, __m128i value) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to), value);
}

__attribute__((target("ssse3"))) std::size_t EncodeWithShuffle(char* text, const char* bytes,
                                                               std::size_t count) {
  const __m128i spread = _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
  // What is added to a value to get its character: by the part of the alphabet that it lies in.
  const __m128i offsets =
      _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                    '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
  std::size_t done = 0;
  // Sixteen bytes are read for the twelve that are encoded.
  for (; count - done >= 16; done += 12, text += 16) {
    // Four bytes for each group, with every value whole in one half of them; then each in a byte of its own.
    const __m128i groups = _mm_shuffle_epi8(Load(bytes + done), spread);
    const __m128i odd =
        _mm_mulhi_epu16(_mm_and_si128(groups, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
    const __m128i even =
        _mm_mullo_epi16(_mm_and_si128(groups, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
    const __m128i values = _mm_or_si128(odd, even);
    // 13 for capitals, 0 for small letters, 1 to 12 for each of the others.
    const __m128i capitals = _mm_cmpgt_epi8(_mm_set1_epi8(26), values);
    const __m128i parts =
        _mm_or_si128(_mm_subs_epu8(values, _mm_set1_epi8(51)), _mm_and_si128(capitals, _mm_set1_epi8(13)));
    Store(text, _mm_add_epi8(values, _mm_shuffle_epi8(offsets, parts)));
  }
  return done;
}

__attribute__((target("ssse3"))) std::size_t DecodeWithShuffle(char* bytes, const char* text,
                                                               std::size_t count) {
  // A bit for each reason why a character with that upper or lower half is foreign; it is when its halves
  // have a reason in common.
  const __m128i upper_reasons = _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10,
                                              0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
  const __m128i lower_reasons = _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                              0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
  // What is added to a character to get its value, by its upper half; "/" has the place before that of "+".
  const __m128i offsets =
      _mm_setr_epi8(0, 63 - '/', 62 - '+', 52 - '0', -'A', -'A', 26 - 'a', 26 - 'a', 0, 0, 0, 0, 0, 0, 0, 0);
  const __m128i gather = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  const __m128i half = _mm_set1_epi8(0x0F);
  std::size_t done = 0;
  // Sixteen bytes are written for the twelve that are decoded, so that two more groups have to follow.
  for (; count - done >= 24; done += 16, bytes += 12) {
    const __m128i characters = Load(text + done);
    const __m128i upper = _mm_and_si128(_mm_srli_epi32(characters, 4), half);
    const __m128i lower = _mm_and_si128(characters, half);
    const __m128i reasons =
        _mm_and_si128(_mm_shuffle_epi8(upper_reasons, upper), _mm_shuffle_epi8(lower_reasons, lower));
    if (_mm_movemask_epi8(_mm_cmpgt_epi8(reasons, _mm_setzero_si128())) != 0) break;
    const __m128i slashes = _mm_cmpeq_epi8(characters, _mm_set1_epi8('/'));  // -1 where there is one
    const __m128i values = _mm_add_epi8(characters, _mm_shuffle_epi8(offsets, _mm_add_epi8(upper, slashes)));
    const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
    const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
    Store(bytes, _mm_shuffle_epi8(groups, gather));
  }
  return done;
}

}  // namespace

std::size_t EncodeBlocks(char* text, const char* bytes, std::size_t count) {
  return g_has_shuffle ? EncodeWithShuffle(text, bytes, count) : 0;
}

std::size_t DecodeBlocks(char* bytes, const char* text, std::size_t count) {
  return g_has_shuffle ? DecodeWithShuffle(bytes, text, count) : 0;
}

}  // namespace Tolm::Base::Encrypt
