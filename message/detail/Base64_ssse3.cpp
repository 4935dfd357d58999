// The vector kernel of the base64 encoder, for x86 processors with SSSE3.
//
// Twelve input bytes become sixteen characters per step: a shuffle puts each 3-byte group
// into its own 32-bit lane (twice, in the order the shifts need), two multiplications move
// the four 6-bit fields of each lane into bytes of their own, and a shuffle of a small table
// gives the offset that turns each field into its character of the alphabet.
//
// The function carries the SSSE3 target itself, so that nothing else in the library is
// compiled for it; it runs only after the processor has said that it has SSSE3.
#include "message/detail/Base64.h"

#if defined(__x86_64__) || defined(_M_X64) || defined(__i386__) || defined(_M_IX86)

#include <tmmintrin.h>  // SSSE3

#include "base/CpuFeatures.h"

#if defined(_MSC_VER) && !defined(__clang__)
#define PENDREL_SSSE3
#else
#define PENDREL_SSSE3 __attribute__((target("ssse3")))
#endif

namespace Pendrel::detail {
namespace {

// Sixteen 6-bit fields (each in a byte of its own) as their characters. Fields 0..25 are
// letters A..Z, 26..51 a..z, 52..61 digits, 62 '+' and 63 '/': each range differs from its
// characters by one offset, found by a table shuffle on a small class number.
PENDREL_SSSE3 inline __m128i FieldsToCharacters(__m128i fields) {
  // Class 1..12 for 52..63, 0 for 26..51 (small letters), 13 for 0..25 (capitals).
  __m128i classes = _mm_subs_epu8(fields, _mm_set1_epi8(51));
  const __m128i capitals = _mm_cmpgt_epi8(_mm_set1_epi8(26), fields);
  classes = _mm_or_si128(classes, _mm_and_si128(capitals, _mm_set1_epi8(13)));
  const __m128i offsets =
      _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                    '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
  return _mm_add_epi8(_mm_shuffle_epi8(offsets, classes), fields);
}

// The twelve low bytes of `bytes` as sixteen characters.
PENDREL_SSSE3 inline __m128i EncodeTwelve(__m128i bytes) {
  // Lane k holds bytes (b1, b0, b2, b1) of group k: the fields, read from the 16-bit halves,
  // then sit where one multiplication each can move them to their bytes.
  const __m128i lanes =
      _mm_shuffle_epi8(bytes, _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10));
  // Fields 0 and 2 (the high six bits of b0, the low four of b1 with the high two of b2)...
  const __m128i high =
      _mm_mulhi_epu16(_mm_and_si128(lanes, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
  // ... and fields 1 and 3, shifted up into bytes 1 and 3 of the lane.
  const __m128i low =
      _mm_mullo_epi16(_mm_and_si128(lanes, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
  return FieldsToCharacters(_mm_or_si128(high, low));
}

PENDREL_SSSE3 void EncodeSsse3(const unsigned char* in, std::size_t count, char* out) {
  // Each step loads sixteen bytes and uses twelve: it may run while sixteen are there.
  std::size_t i = 0;
  for (; i + 16 <= count; i += 12, out += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), EncodeTwelve(bytes));
  }
  PortableBase64Encoder()(in + i, count - i, out);
}

}  // namespace

Base64GroupEncoder VectorBase64Encoder() {
  static const bool available = base::ProcessorHasSsse3();
  return available ? &EncodeSsse3 : nullptr;
}

}  // namespace Pendrel::detail

#else  // not x86

namespace Pendrel::detail {

Base64GroupEncoder VectorBase64Encoder() { return nullptr; }

}  // namespace Pendrel::detail

#endif
