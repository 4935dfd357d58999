// The wide vector kernels of the bulk escape routines, for x86-64 processors with AVX-512
// (BW, VBMI and VBMI2) and BMI2.
//
// Sixty-four bytes per step, and a byte's escape is found by one table lookup over the
// 128 ASCII bytes (no hash needed: VBMI permutes bytes across the whole register). What the
// SSSE3 kernels do with shuffle tables for eight bytes at a time, VBMI2 does in one
// instruction: escaping expands thirty-two bytes to their places behind the backslashes,
// unescaping compresses sixty-four bytes past the dropped backslashes. Where the backslashes
// go while escaping is a bit-level expansion of the escape mask (BMI2's pdep and pext).
// Block tails go to the SSSE3 kernels (escaping) or to the portable loops.
//
// The output is byte for byte that of the portable loops (the kernel tests hold them
// against each other). Stores are whole 64-byte blocks, of which at least 32 bytes are
// output, within kCopySlack.
//
// The functions carry their target themselves and run only after the processor (and the
// operating system, which must save the wide registers) have said yes. MinGW builds leave
// them out: GCC cannot align the stack to 64 bytes for spilled vectors on 64-bit Windows.
#include "json/detail/JsonEscapes.h"

#if (defined(__x86_64__) || defined(_M_X64)) && !defined(__MINGW32__)

#include <immintrin.h>  // AVX-512, BMI2, POPCNT

#include "base/CpuFeatures.h"

#include <cstdint>
#include <string>   // std::char_traits
#include <utility>  // std::exchange

#if defined(_MSC_VER) && !defined(__clang__)
#include <intrin.h>  // _BitScanForward64
#define PENDREL_AVX512
#else
#define PENDREL_AVX512 \
  __attribute__((target("avx512f,avx512bw,avx512vbmi,avx512vbmi2,bmi2,popcnt")))
#endif

namespace Pendrel::detail {
namespace {

// One side of the escape table over the ASCII bytes: what each byte maps to, 0 for none.
struct AsciiTable {
  alignas(64) char bytes[128] = {};
};

constexpr AsciiTable MakeAsciiTable(bool letters) {
  AsciiTable table;
  for (const JsonEscape& escape : kJsonEscapes) {
    if (letters) {
      table.bytes[static_cast<unsigned char>(escape.raw)] = escape.letter;
    } else {
      table.bytes[static_cast<unsigned char>(escape.letter)] = escape.raw;
    }
  }
  return table;
}

// Raw byte to the letter that escapes it, and letter to the raw byte it stands for.
constexpr AsciiTable kLetterOfRaw = MakeAsciiTable(true);
constexpr AsciiTable kRawOfLetter = MakeAsciiTable(false);

// Every escape byte is ASCII: the tables need no entries above 127.
constexpr bool AllEscapesAscii() {
  for (const JsonEscape& escape : kJsonEscapes) {
    if (static_cast<unsigned char>(escape.raw) > 127 ||
        static_cast<unsigned char>(escape.letter) > 127) {
      return false;
    }
  }
  return true;
}
static_assert(AllEscapesAscii(), "the lookups cover the ASCII bytes only");

constexpr std::uint64_t kEvenBits = 0x5555555555555555ull;
constexpr std::uint64_t kOddBits = 0xAAAAAAAAAAAAAAAAull;

unsigned LowestBit(std::uint64_t mask) {
#if defined(_MSC_VER) && !defined(__clang__)
  unsigned long index = 0;
  _BitScanForward64(&index, mask);
  return static_cast<unsigned>(index);
#else
  return static_cast<unsigned>(__builtin_ctzll(mask));
#endif
}

// As in the SSSE3 kernels: bit i is set when byte i of a 64-byte block is escaped, `carry`
// telling whether byte 0 is escaped by the block before, updated for the block after.
std::uint64_t EscapedBits(std::uint64_t backslash, std::uint64_t& carry) {
  if (backslash == 0) return std::exchange(carry, 0);
  const std::uint64_t escaping = backslash & ~carry;  // an escaped backslash escapes nothing
  const std::uint64_t codes = (((escaping << 1) | kOddBits) - escaping) ^ kOddBits;
  const std::uint64_t escaped = codes ^ (backslash | carry);
  carry = (codes & backslash) >> 63;
  return escaped;
}

bool IsLetter(char c) { return kJsonEscapeLookup.rawOf[static_cast<unsigned char>(c)] != '\0'; }

// Whether an odd run of backslashes ends just before `at`; `begin` is where escaping starts
// afresh.
bool IsEscaped(const char* begin, const char* at) {
  const char* runStart = at;
  while (runStart != begin && runStart[-1] == '\\') --runStart;
  return (at - runStart) % 2 != 0;
}

PENDREL_AVX512 inline __m512i Load(const void* at) { return _mm512_loadu_si512(at); }

PENDREL_AVX512 inline void Store(void* at, __m512i value) { _mm512_storeu_si512(at, value); }

// What `table` holds for each byte, and the bytes for which that is not 0 (never for bytes
// of 0x80 and above, which the lookup's seven index bits would fold onto ASCII).
PENDREL_AVX512 inline __m512i LookUp(const AsciiTable& table, __m512i bytes, __mmask64& hits) {
  const __m512i found = _mm512_permutex2var_epi8(Load(table.bytes), bytes, Load(table.bytes + 64));
  hits = _mm512_test_epi8_mask(found, found) & ~_mm512_movepi8_mask(bytes);
  return found;
}

// Writes the 32 low bytes of `letters` (escaped bytes already replaced by their letters),
// those marked in `escapes` behind a backslash; returns the new end.
PENDREL_AVX512 inline char* SpreadHalf(__m512i letters, std::uint32_t escapes, char* out) {
  // Two bits per input byte, low one for its backslash (present when escaped), high one for
  // the byte itself; the output slots are the present bits in order, so packing the byte
  // bits down to the present ones marks which slots take input bytes.
  const std::uint64_t present = _pdep_u64(escapes, kEvenBits) | kOddBits;
  const std::uint64_t byteSlots = _pext_u64(kOddBits, present);
  Store(out, _mm512_mask_expand_epi8(_mm512_set1_epi8('\\'), byteSlots, letters));
  return out + 32 + _mm_popcnt_u64(escapes);
}

PENDREL_AVX512 char* CopyEscaped(const char* first, const char* last, char* out) {
  while (last - first >= 64) {
    const __m512i bytes = Load(first);
    __mmask64 escapes = 0;
    const __m512i letters = LookUp(kLetterOfRaw, bytes, escapes);
    if (escapes == 0) {
      Store(out, bytes);  // text: mostly whole blocks without escapes
    } else {
      const __m512i mixed = _mm512_mask_blend_epi8(escapes, bytes, letters);
      out = SpreadHalf(mixed, static_cast<std::uint32_t>(escapes), out);
      out = SpreadHalf(_mm512_maskz_shuffle_i64x2(0xFF, mixed, mixed, 0xEE),  // high half down
                       static_cast<std::uint32_t>(escapes >> 32), out);
      first += 64;
      continue;
    }
    out += 64;
    first += 64;
  }
  // The tail, sixteen bytes at a time: processors with these kernels have SSSE3 too.
  const JsonTextKernels* narrow = VectorJsonTextKernels();
  return (narrow != nullptr ? *narrow : PortableJsonTextKernels()).copyEscaped(first, last, out);
}

// Unescapes [first, last); with `kStopAtQuote`, only up to the first quote that no backslash
// escapes, whose place goes to `stop`. The same steps as the SSSE3 kernel, on whole blocks.
template <bool kStopAtQuote>
PENDREL_AVX512 inline char* Unescape(const char* first, const char* last, char* out,
                                     const char*& stop) {
  const __m512i backslash = _mm512_set1_epi8('\\');
  const __m512i quote = _mm512_set1_epi8('"');
  std::uint64_t carry = 0;  // whether the block's first byte is escaped
  // A block looks at the byte after it, so one byte must follow.
  while (last - first > 64) {
    const __m512i bytes = Load(first);
    const std::uint64_t backslashes = _mm512_cmpeq_epi8_mask(bytes, backslash);
    const std::uint64_t quotes = kStopAtQuote ? _mm512_cmpeq_epi8_mask(bytes, quote) : 0;
    if ((backslashes | carry | quotes) == 0) {
      Store(out, bytes);  // text: mostly whole blocks without escapes
      out += 64;
      first += 64;
      continue;
    }
    const std::uint64_t carryIn = carry;
    const std::uint64_t escaped = EscapedBits(backslashes, carry);
    if (kStopAtQuote && (quotes & ~escaped) != 0) {
      // The string ends in this block: the bytes before the end go the portable way.
      carry = carryIn;
      last = first + LowestBit(quotes & ~escaped);
      break;
    }
    // A letter escaped by a backslash becomes its raw byte and the backslash is dropped; a
    // byte that is no letter stays as it is, and so does the backslash before it.
    __mmask64 letters = 0;
    const __m512i raw = LookUp(kRawOfLetter, bytes, letters);
    const std::uint64_t escapedLetters = escaped & letters;
    const bool nextIsEscapedLetter = carry != 0 && IsLetter(first[64]);
    const std::uint64_t dropped =
        (escapedLetters >> 1) | (std::uint64_t{nextIsEscapedLetter} << 63);
    const __m512i mixed = _mm512_mask_blend_epi8(escapedLetters, bytes, raw);
    Store(out, _mm512_maskz_compress_epi8(~dropped, mixed));
    out += 64 - _mm_popcnt_u64(dropped);
    first += 64;
  }
  // The byte escaped by the last block's final backslash: a letter (a quote included) has
  // been written as its raw byte already, since that block dropped the backslash; any other
  // byte is an ordinary one.
  if (carry != 0 && first != last && IsLetter(*first)) {
    *out++ = kJsonEscapeLookup.rawOf[static_cast<unsigned char>(*first++)];
  }
  const JsonTextKernels& portable = PortableJsonTextKernels();
  if (kStopAtQuote) return portable.copyStringUnescaped(first, last, out, stop);
  return portable.copyUnescaped(first, last, out);
}

PENDREL_AVX512 char* CopyUnescaped(const char* first, const char* last, char* out) {
  const char* unused = nullptr;
  return Unescape<false>(first, last, out, unused);
}

PENDREL_AVX512 char* CopyStringUnescaped(const char* first, const char* last, char* out,
                                         const char*& stop) {
  return Unescape<true>(first, last, out, stop);
}

PENDREL_AVX512 const char* FindStringEnd(const char* first, const char* last, bool& hasBackslash) {
  // As in the SSSE3 kernel: look for quotes alone, and ask for each one whether an odd run
  // of backslashes escapes it.
  const char* const begin = first;
  const __m512i quote = _mm512_set1_epi8('"');
  const __m512i backslash = _mm512_set1_epi8('\\');
  bool backslashSeen = false;
  while (last - first >= 64) {
    const __m512i bytes = Load(first);
    const std::uint64_t backslashes = _mm512_cmpeq_epi8_mask(bytes, backslash);
    for (std::uint64_t quotes = _mm512_cmpeq_epi8_mask(bytes, quote); quotes != 0;
         quotes &= quotes - 1) {
      const unsigned index = LowestBit(quotes);
      if (IsEscaped(begin, first + index)) continue;
      const std::uint64_t before = (std::uint64_t{1} << index) - 1;
      hasBackslash = hasBackslash || backslashSeen || (backslashes & before) != 0;
      return first + index;
    }
    backslashSeen = backslashSeen || backslashes != 0;
    first += 64;
  }
  hasBackslash = hasBackslash || backslashSeen;
  // The rest, past the byte that a run of backslashes before it escapes, if any.
  if (IsEscaped(begin, first)) {
    if (first == last) return last;
    ++first;
  }
  return PortableJsonTextKernels().findStringEnd(first, last, hasBackslash);
}

constexpr JsonTextKernels kAvx512{CopyEscaped, CopyUnescaped, FindStringEnd, CopyStringUnescaped};

}  // namespace

const JsonTextKernels* WideVectorJsonTextKernels() {
  static const bool available = base::ProcessorHasAvx512Vbmi2();
  return available ? &kAvx512 : nullptr;
}

}  // namespace Pendrel::detail

#else  // not x86-64, or MinGW

namespace Pendrel::detail {

const JsonTextKernels* WideVectorJsonTextKernels() { return nullptr; }

}  // namespace Pendrel::detail

#endif
