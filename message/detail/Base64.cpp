#include "message/detail/Base64.h"

#include <algorithm>  // std::min, std::max
#include <array>
#include <cstdint>
#include <cstring>  // std::memcpy

namespace Pendrel::detail {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Every 12-bit group as its two output characters, so one lookup writes two of them.
constexpr std::array<char, 2 * 4096> MakePairTable() {
  std::array<char, 2 * 4096> table{};
  for (unsigned i = 0; i < 4096; ++i) {
    table[2 * i] = kAlphabet[i >> 6];
    table[2 * i + 1] = kAlphabet[i & 0x3F];
  }
  return table;
}
constexpr std::array<char, 2 * 4096> kPairs = MakePairTable();

// 65-character lines and 4-character groups meet again every 260 characters: four lines
// from 195 input bytes. A chunk takes eight such runs, so that the encoder works on long
// stretches and the short tail it leaves to scalar code comes seldom.
constexpr std::size_t kChunkLines = 32;
constexpr std::size_t kChunkBytes = 195 * kChunkLines / 4;
constexpr std::size_t kChunkChars = kBase64LineLength * kChunkLines;

// Encodes whole 3-byte groups of `in` (count a multiple of 3) into `out`, two groups (six
// bytes, eight characters) per step where it can.
void EncodePortably(const unsigned char* in, std::size_t count, char* out) {
  std::size_t i = 0;
  for (; i + 6 <= count; i += 6, out += 8) {
    const std::uint64_t bits = (std::uint64_t{in[i]} << 40) | (std::uint64_t{in[i + 1]} << 32) |
                               (std::uint64_t{in[i + 2]} << 24) | (std::uint64_t{in[i + 3]} << 16) |
                               (std::uint64_t{in[i + 4]} << 8) | std::uint64_t{in[i + 5]};
    std::memcpy(out, &kPairs[2 * ((bits >> 36) & 0xFFF)], 2);
    std::memcpy(out + 2, &kPairs[2 * ((bits >> 24) & 0xFFF)], 2);
    std::memcpy(out + 4, &kPairs[2 * ((bits >> 12) & 0xFFF)], 2);
    std::memcpy(out + 6, &kPairs[2 * (bits & 0xFFF)], 2);
  }
  if (i < count) {
    const unsigned bits = (unsigned{in[i]} << 16) | (unsigned{in[i + 1]} << 8) | in[i + 2];
    std::memcpy(out, &kPairs[2 * (bits >> 12)], 2);
    std::memcpy(out + 2, &kPairs[2 * (bits & 0xFFF)], 2);
  }
}

// Encodes the last one or two bytes with "=" padding.
void EncodeTail(const unsigned char* in, std::size_t count, char* out) {
  const unsigned bits = (unsigned{in[0]} << 16) | (count > 1 ? unsigned{in[1]} << 8 : 0u);
  out[0] = kAlphabet[bits >> 18];
  out[1] = kAlphabet[(bits >> 12) & 0x3F];
  out[2] = count > 1 ? kAlphabet[(bits >> 6) & 0x3F] : '=';
  out[3] = '=';
}

// The encoder this process uses: the vector kernel where the processor has one.
Base64GroupEncoder ChosenEncoder() {
  static const Base64GroupEncoder encoder = [] {
    const Base64GroupEncoder vector = VectorBase64Encoder();
    return vector != nullptr ? vector : &EncodePortably;
  }();
  return encoder;
}

}  // namespace

Base64GroupEncoder PortableBase64Encoder() { return &EncodePortably; }

std::size_t Base64LinesLength(std::size_t size) {
  const std::size_t chars = (size + 2) / 3 * 4;
  const std::size_t lines = (chars + kBase64LineLength - 1) / kBase64LineLength;
  return chars + (lines > 0 ? 2 * (lines - 1) : 0);
}

void AppendBase64Lines(std::string& out, std::string_view data) {
  AppendBase64Lines(out, data, ChosenEncoder());
}

void AppendBase64Lines(std::string& out, std::string_view data, Base64GroupEncoder encoder) {
  if (data.empty()) return;
  // Growth stays geometric, as with append, for callers that append piece by piece.
  const std::size_t needed = out.size() + Base64LinesLength(data.size());
  if (out.capacity() < needed) out.reserve(std::max(needed, 2 * out.capacity()));
  const auto* in = reinterpret_cast<const unsigned char*>(data.data());
  std::size_t left = data.size();

  // Whole chunks: encode their lines into a block and lay them out with their line breaks in
  // a second one, both cache-resident, then append that: the output is written once, and
  // never zeroed first.
  char block[kChunkChars];
  char lines[kChunkChars + 2 * kChunkLines];
  while (left >= kChunkBytes) {
    encoder(in, kChunkBytes, block);
    in += kChunkBytes;
    left -= kChunkBytes;
    char* dst = lines;
    for (std::size_t line = 0; line < kChunkLines; ++line) {
      std::memcpy(dst, block + line * kBase64LineLength, kBase64LineLength);
      dst += kBase64LineLength;
      if (left > 0 || line + 1 < kChunkLines) {
        dst[0] = '\r';
        dst[1] = '\n';
        dst += 2;
      }
    }
    out.append(lines, static_cast<std::size_t>(dst - lines));
  }

  // The rest: fewer than a chunk's lines, the last of them possibly short and padded.
  if (left > 0) {
    const std::size_t whole = left / 3 * 3;
    encoder(in, whole, block);
    std::size_t chars = whole / 3 * 4;
    if (left > whole) {
      EncodeTail(in + whole, left - whole, block + chars);
      chars += 4;
    }
    for (std::size_t offset = 0; offset < chars; offset += kBase64LineLength) {
      if (offset > 0) out.append("\r\n", 2);
      out.append(block + offset, std::min(kBase64LineLength, chars - offset));
    }
  }
}

}  // namespace Pendrel::detail
