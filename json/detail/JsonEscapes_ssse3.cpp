// The vector kernels of the bulk escape routines, for x86 processors with SSSE3.
//
// The routines work on blocks of sixteen and sixty-four bytes and handle escapes without a
// branch per escape: in binary file contents about one byte in thirty needs one, and a branch
// that goes either way at random costs more than the work itself. A byte is recognised, and
// translated, by one table lookup on a four-bit hash that keeps the eight bytes of its side
// of the escape table apart. Escaping spreads each half block through a shuffle table,
// unescaping packs it through another; block tails go to the portable loops.
//
// The functions carry the SSSE3 target themselves, so that nothing else in the library (no
// inline function that another file might share) is compiled for it; they run only after the
// processor has said that it has SSSE3.
#include "json/detail/JsonEscapes.h"

#if defined(__x86_64__) || defined(_M_X64) || defined(__i386__) || defined(_M_IX86)

#include <tmmintrin.h>  // SSSE3

#include "base/CpuFeatures.h"

#include <cstdint>
#include <string>   // std::char_traits
#include <utility>  // std::exchange

#if defined(_MSC_VER) && !defined(__clang__)
#include <intrin.h>  // _BitScanForward64
#define PENDREL_SSSE3
#else
#define PENDREL_SSSE3 __attribute__((target("ssse3")))
#endif

namespace Pendrel::detail {
namespace {

using Bytes16 = std::array<std::uint8_t, 16>;

// --- Tables, all derived from kJsonEscapes ---

// A four-bit hash, ((x >> a) + or - (x >> b)) & 0x0F. Shifts of at most four keep the low
// four bits of every byte within the byte, also where the vector shifts 16-bit lanes.
struct NibbleHash {
  int a = 0;
  int b = 0;
  bool subtract = false;

  constexpr unsigned Of(unsigned char byte) const {
    const int left = byte >> a;
    const int right = byte >> b;
    return static_cast<unsigned>(subtract ? left - right : left + right) & 0x0F;
  }
};

// One side of the escape table (the raw bytes or the letters) as a hash and two lookups:
// `member` holds each byte of the side at its hash, so a byte belongs to the side exactly
// when it equals the entry at its hash; `other` holds the byte of the other side.
struct HashedSide {
  NibbleHash hash;
  Bytes16 member{};
  Bytes16 other{};
};

template <typename Pick>
constexpr HashedSide MakeHashedSide(Pick pick, Pick pickOther) {
  for (int a = 0; a <= 4; ++a) {
    for (int b = a + 1; b <= 4; ++b) {
      for (bool subtract : {false, true}) {
        HashedSide side{NibbleHash{a, b, subtract}};
        unsigned used = 0;
        bool apart = true;
        for (const JsonEscape& escape : kJsonEscapes) {
          const auto byte = static_cast<unsigned char>(pick(escape));
          const unsigned slot = side.hash.Of(byte);
          apart = apart && (used >> slot & 1) == 0;
          used |= 1u << slot;
          side.member[slot] = byte;
          side.other[slot] = static_cast<std::uint8_t>(pickOther(escape));
        }
        if (!apart) continue;
        // A free slot holds a byte that hashes elsewhere, so that no byte matches it.
        for (unsigned slot = 0; slot < 16; ++slot) {
          if ((used >> slot & 1) != 0) continue;
          unsigned char stranger = 0;
          while (side.hash.Of(stranger) == slot) ++stranger;
          side.member[slot] = stranger;
        }
        return side;
      }
    }
  }
  throw "no four-bit hash keeps the eight bytes apart";
}

constexpr char PickRaw(const JsonEscape& escape) { return escape.raw; }
constexpr char PickLetter(const JsonEscape& escape) { return escape.letter; }

// Raw bytes to escape, with their letters.
constexpr HashedSide kRawSide = MakeHashedSide(PickRaw, PickLetter);
// Letters after a backslash, with their raw bytes.
constexpr HashedSide kLetterSide = MakeHashedSide(PickLetter, PickRaw);

// How eight bytes with the escape mask `mask` spread into up to sixteen: the source byte of
// each output slot (none for the backslash of an escape, which comes from `backslashes`; the
// slot after it takes the escaped byte, already replaced by its letter). Kept as separate
// arrays of sixteen bytes so that an entry is found by a shift.
struct SpreadTable {
  std::array<Bytes16, 256> source{};
  std::array<Bytes16, 256> backslashes{};
  std::array<std::uint8_t, 256> length{};
};

constexpr SpreadTable MakeSpreadTable() {
  SpreadTable table{};
  for (unsigned mask = 0; mask < 256; ++mask) {
    for (std::uint8_t& source : table.source[mask]) source = 0x80;  // gives zero
    unsigned slot = 0;
    for (unsigned i = 0; i < 8; ++i) {
      if ((mask >> i & 1) != 0) table.backslashes[mask][slot++] = '\\';
      table.source[mask][slot++] = static_cast<std::uint8_t>(i);
    }
    table.length[mask] = static_cast<std::uint8_t>(slot);
  }
  return table;
}

constexpr SpreadTable kSpread = MakeSpreadTable();

// How eight bytes lose those marked in `mask`: the source byte of each kept slot.
struct PackTable {
  std::array<Bytes16, 256> source{};
  std::array<std::uint8_t, 256> length{};
};

constexpr PackTable MakePackTable() {
  PackTable table{};
  for (unsigned mask = 0; mask < 256; ++mask) {
    unsigned slot = 0;
    for (unsigned i = 0; i < 8; ++i) {
      if ((mask >> i & 1) == 0) table.source[mask][slot++] = static_cast<std::uint8_t>(i);
    }
    table.length[mask] = static_cast<std::uint8_t>(slot);
    for (; slot < 16; ++slot) table.source[mask][slot] = 0x80;
  }
  return table;
}

constexpr PackTable kPack = MakePackTable();

// --- Scalar helpers ---

unsigned LowestBit(std::uint64_t mask) {
#if defined(_MSC_VER) && !defined(__clang__)
  unsigned long index = 0;
  _BitScanForward64(&index, mask);
  return static_cast<unsigned>(index);
#else
  return static_cast<unsigned>(__builtin_ctzll(mask));
#endif
}

// Bit i is set when byte i of a 64-byte block is escaped: it follows an odd run of
// backslashes. `carry` tells whether byte 0 is escaped by the block before, and is updated
// for the block after. Runs of backslashes pair up from their start, so the parity of each
// run's start decides which of its bytes escape; the subtraction finds those parities for
// all runs at once.
std::uint64_t EscapedBits(std::uint64_t backslash, std::uint64_t& carry) {
  if (backslash == 0) return std::exchange(carry, 0);
  constexpr std::uint64_t kOddBits = 0xAAAAAAAAAAAAAAAAull;
  const std::uint64_t escaping = backslash & ~carry;  // an escaped backslash escapes nothing
  const std::uint64_t codes = (((escaping << 1) | kOddBits) - escaping) ^ kOddBits;
  const std::uint64_t escaped = codes ^ (backslash | carry);
  carry = (codes & backslash) >> 63;
  return escaped;
}

bool IsLetter(char c) { return kJsonEscapeLookup.rawOf[static_cast<unsigned char>(c)] != '\0'; }

// Whether an odd run of backslashes ends just before `at`, so that the byte there is escaped.
// `begin` is where escaping starts afresh.
bool IsEscaped(const char* begin, const char* at) {
  const char* runStart = at;
  while (runStart != begin && runStart[-1] == '\\') --runStart;
  return (at - runStart) % 2 != 0;
}

// --- Vector helpers ---

PENDREL_SSSE3 inline __m128i Load(const void* at) {
  return _mm_loadu_si128(static_cast<const __m128i*>(at));
}

PENDREL_SSSE3 inline void Store(void* at, __m128i value) {
  _mm_storeu_si128(static_cast<__m128i*>(at), value);
}

PENDREL_SSSE3 inline unsigned Mask(__m128i bytes) {
  return static_cast<unsigned>(_mm_movemask_epi8(bytes));
}

PENDREL_SSSE3 inline std::uint64_t Mask64(__m128i b0, __m128i b1, __m128i b2, __m128i b3) {
  return std::uint64_t{Mask(b0)} | std::uint64_t{Mask(b1)} << 16 | std::uint64_t{Mask(b2)} << 32 |
         std::uint64_t{Mask(b3)} << 48;
}

// `yes` where `select` is 0xFF, `no` elsewhere.
PENDREL_SSSE3 inline __m128i Select(__m128i select, __m128i yes, __m128i no) {
  return _mm_or_si128(_mm_and_si128(select, yes), _mm_andnot_si128(select, no));
}

// A 16-bit mask as sixteen bytes of 0xFF or 0.
PENDREL_SSSE3 inline __m128i BitsToBytes(unsigned mask) {
  const __m128i spread =
      _mm_shuffle_epi8(_mm_cvtsi32_si128(static_cast<int>(mask)),
                       _mm_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1));
  const __m128i bits = _mm_setr_epi8(1, 2, 4, 8, 16, 32, 64, -128, 1, 2, 4, 8, 16, 32, 64, -128);
  return _mm_cmpeq_epi8(_mm_and_si128(spread, bits), bits);
}

// Looks the bytes of a block up on one side of the escape table.
struct SideLookup {
  __m128i hash;    // each byte's slot
  __m128i member;  // 0xFF where the byte belongs to the side
  __m128i other;   // the byte of the other side where it does; garbage elsewhere
};

PENDREL_SSSE3 inline SideLookup LookUp(const HashedSide& side, __m128i bytes) {
  const __m128i left = _mm_srli_epi16(bytes, side.hash.a);
  const __m128i right = _mm_srli_epi16(bytes, side.hash.b);
  const __m128i sum = side.hash.subtract ? _mm_sub_epi8(left, right) : _mm_add_epi8(left, right);
  const __m128i hash = _mm_and_si128(sum, _mm_set1_epi8(0x0F));
  const __m128i member = _mm_cmpeq_epi8(_mm_shuffle_epi8(Load(side.member.data()), hash), bytes);
  return {hash, member, _mm_shuffle_epi8(Load(side.other.data()), hash)};
}

// Writes the eight low bytes of `letters`, those in `mask` behind a backslash; returns the
// new end.
PENDREL_SSSE3 inline char* SpreadHalf(__m128i letters, unsigned mask, char* out) {
  Store(out, _mm_or_si128(_mm_shuffle_epi8(letters, Load(kSpread.source[mask].data())),
                          Load(kSpread.backslashes[mask].data())));
  return out + kSpread.length[mask];
}

// Writes sixteen bytes escaped.
PENDREL_SSSE3 inline char* SpreadBlock(__m128i bytes, const SideLookup& raw, char* out) {
  const __m128i letters = Select(raw.member, raw.other, bytes);
  const unsigned mask = Mask(raw.member);
  out = SpreadHalf(letters, mask & 0xFF, out);
  return SpreadHalf(_mm_srli_si128(letters, 8), mask >> 8, out);
}

// Writes the eight low bytes of `bytes` without those in `mask`; returns the new end.
PENDREL_SSSE3 inline char* PackHalf(__m128i bytes, unsigned mask, char* out) {
  _mm_storel_epi64(static_cast<__m128i*>(static_cast<void*>(out)),
                   _mm_shuffle_epi8(bytes, Load(kPack.source[mask].data())));
  return out + kPack.length[mask];
}

// Writes sixteen bytes unescaped: those in `escapedLetters` become the raw bytes they stand
// for (`raw`), those in `dropped` (their backslashes) are left out.
PENDREL_SSSE3 inline char* PackBlock(__m128i bytes, __m128i raw, unsigned escapedLetters,
                                     unsigned dropped, char* out) {
  bytes = Select(BitsToBytes(escapedLetters), raw, bytes);
  out = PackHalf(bytes, dropped & 0xFF, out);
  return PackHalf(_mm_srli_si128(bytes, 8), dropped >> 8, out);
}

// --- Kernels ---

PENDREL_SSSE3 char* CopyEscaped(const char* first, const char* last, char* out) {
  while (last - first >= 64) {
    const __m128i b0 = Load(first);
    const __m128i b1 = Load(first + 16);
    const __m128i b2 = Load(first + 32);
    const __m128i b3 = Load(first + 48);
    const SideLookup r0 = LookUp(kRawSide, b0);
    const SideLookup r1 = LookUp(kRawSide, b1);
    const SideLookup r2 = LookUp(kRawSide, b2);
    const SideLookup r3 = LookUp(kRawSide, b3);
    if (Mask(_mm_or_si128(_mm_or_si128(r0.member, r1.member),
                          _mm_or_si128(r2.member, r3.member))) == 0) {
      Store(out, b0);  // text: mostly whole blocks without escapes
      Store(out + 16, b1);
      Store(out + 32, b2);
      Store(out + 48, b3);
      out += 64;
    } else {
      out = SpreadBlock(b0, r0, out);
      out = SpreadBlock(b1, r1, out);
      out = SpreadBlock(b2, r2, out);
      out = SpreadBlock(b3, r3, out);
    }
    first += 64;
  }
  for (; last - first >= 16; first += 16) {
    const __m128i bytes = Load(first);
    out = SpreadBlock(bytes, LookUp(kRawSide, bytes), out);
  }
  return PortableJsonTextKernels().copyEscaped(first, last, out);
}

// Unescapes [first, last); with `kStopAtQuote`, only up to the first quote that no backslash
// escapes, whose place goes to `stop`.
template <bool kStopAtQuote>
PENDREL_SSSE3 inline char* Unescape(const char* first, const char* last, char* out,
                                    const char*& stop) {
  const __m128i backslash = _mm_set1_epi8('\\');
  const __m128i quote = _mm_set1_epi8('"');
  std::uint64_t carry = 0;  // whether the block's first byte is escaped
  // A block looks at the byte after it, so one byte must follow.
  while (last - first > 64) {
    const __m128i b0 = Load(first);
    const __m128i b1 = Load(first + 16);
    const __m128i b2 = Load(first + 32);
    const __m128i b3 = Load(first + 48);
    const std::uint64_t backslashes =
        Mask64(_mm_cmpeq_epi8(b0, backslash), _mm_cmpeq_epi8(b1, backslash),
               _mm_cmpeq_epi8(b2, backslash), _mm_cmpeq_epi8(b3, backslash));
    const std::uint64_t quotes = kStopAtQuote
                                     ? Mask64(_mm_cmpeq_epi8(b0, quote), _mm_cmpeq_epi8(b1, quote),
                                              _mm_cmpeq_epi8(b2, quote), _mm_cmpeq_epi8(b3, quote))
                                     : 0;
    if ((backslashes | carry | quotes) == 0) {
      Store(out, b0);  // text: mostly whole blocks without escapes
      Store(out + 16, b1);
      Store(out + 32, b2);
      Store(out + 48, b3);
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
    const SideLookup l0 = LookUp(kLetterSide, b0);
    const SideLookup l1 = LookUp(kLetterSide, b1);
    const SideLookup l2 = LookUp(kLetterSide, b2);
    const SideLookup l3 = LookUp(kLetterSide, b3);
    const std::uint64_t escapedLetters =
        escaped & Mask64(l0.member, l1.member, l2.member, l3.member);
    const bool nextIsEscapedLetter = carry != 0 && IsLetter(first[64]);
    const std::uint64_t dropped =
        (escapedLetters >> 1) | (std::uint64_t{nextIsEscapedLetter} << 63);
    const auto part = [](std::uint64_t bits, int k) {
      return static_cast<unsigned>(bits >> (16 * k)) & 0xFFFF;
    };
    out = PackBlock(b0, l0.other, part(escapedLetters, 0), part(dropped, 0), out);
    out = PackBlock(b1, l1.other, part(escapedLetters, 1), part(dropped, 1), out);
    out = PackBlock(b2, l2.other, part(escapedLetters, 2), part(dropped, 2), out);
    out = PackBlock(b3, l3.other, part(escapedLetters, 3), part(dropped, 3), out);
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

PENDREL_SSSE3 char* CopyUnescaped(const char* first, const char* last, char* out) {
  const char* unused = nullptr;
  return Unescape<false>(first, last, out, unused);
}

PENDREL_SSSE3 char* CopyStringUnescaped(const char* first, const char* last, char* out,
                                        const char*& stop) {
  return Unescape<true>(first, last, out, stop);
}

PENDREL_SSSE3 const char* FindStringEnd(const char* first, const char* last, bool& hasBackslash) {
  // Quotes are rare, also in binary contents (one byte in 256), so the scan looks for them
  // alone and asks for each one whether an odd run of backslashes escapes it.
  const char* const begin = first;
  const __m128i quote = _mm_set1_epi8('"');
  const __m128i backslash = _mm_set1_epi8('\\');
  __m128i backslashSeen = _mm_setzero_si128();
  while (last - first >= 64) {
    const __m128i b0 = Load(first);
    const __m128i b1 = Load(first + 16);
    const __m128i b2 = Load(first + 32);
    const __m128i b3 = Load(first + 48);
    const __m128i q0 = _mm_cmpeq_epi8(b0, quote);
    const __m128i q1 = _mm_cmpeq_epi8(b1, quote);
    const __m128i q2 = _mm_cmpeq_epi8(b2, quote);
    const __m128i q3 = _mm_cmpeq_epi8(b3, quote);
    if (Mask(_mm_or_si128(_mm_or_si128(q0, q1), _mm_or_si128(q2, q3))) != 0) {
      for (std::uint64_t quotes = Mask64(q0, q1, q2, q3); quotes != 0; quotes &= quotes - 1) {
        const char* const at = first + LowestBit(quotes);
        if (IsEscaped(begin, at)) continue;
        hasBackslash = hasBackslash || Mask(backslashSeen) != 0 ||
                       std::char_traits<char>::find(first, static_cast<std::size_t>(at - first),
                                                    '\\') != nullptr;
        return at;
      }
    }
    const __m128i s01 = _mm_or_si128(_mm_cmpeq_epi8(b0, backslash), _mm_cmpeq_epi8(b1, backslash));
    const __m128i s23 = _mm_or_si128(_mm_cmpeq_epi8(b2, backslash), _mm_cmpeq_epi8(b3, backslash));
    backslashSeen = _mm_or_si128(backslashSeen, _mm_or_si128(s01, s23));
    first += 64;
  }
  hasBackslash = hasBackslash || Mask(backslashSeen) != 0;
  // The rest, past the byte that a run of backslashes before it escapes, if any.
  if (IsEscaped(begin, first)) {
    if (first == last) return last;
    ++first;
  }
  return PortableJsonTextKernels().findStringEnd(first, last, hasBackslash);
}

constexpr JsonTextKernels kSsse3{CopyEscaped, CopyUnescaped, FindStringEnd, CopyStringUnescaped};

}  // namespace

const JsonTextKernels* VectorJsonTextKernels() {
  static const bool available = base::ProcessorHasSsse3();
  return available ? &kSsse3 : nullptr;
}

}  // namespace Pendrel::detail

#else  // not x86

namespace Pendrel::detail {

const JsonTextKernels* VectorJsonTextKernels() { return nullptr; }

}  // namespace Pendrel::detail

#endif
