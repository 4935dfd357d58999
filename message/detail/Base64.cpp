#include "message/detail/Base64.h"

#include <algorithm>  // std::min
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
// from 195 input bytes.
constexpr std::size_t kChunkBytes = 195;
constexpr std::size_t kChunkChars = 260;

// Encodes whole 3-byte groups of `in` (count a multiple of 3) into `out`, two groups (six
// bytes, eight characters) per step where it can.
void EncodeGroups(const unsigned char* in, std::size_t count, char* out) {
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

}  // namespace

std::size_t Base64LinesLength(std::size_t size) {
  const std::size_t chars = (size + 2) / 3 * 4;
  const std::size_t lines = (chars + kBase64LineLength - 1) / kBase64LineLength;
  return chars + (lines > 0 ? 2 * (lines - 1) : 0);
}

void AppendBase64Lines(std::string& out, std::string_view data) {
  if (data.empty()) return;
  const std::size_t start = out.size();
  const std::size_t total = Base64LinesLength(data.size());
  out.resize(start + total);
  char* dst = out.data() + start;
  const auto* in = reinterpret_cast<const unsigned char*>(data.data());
  std::size_t left = data.size();

  // Whole chunks: encode four lines into a cache-resident block, then lay them out with
  // their line breaks.
  char block[kChunkChars];
  while (left >= kChunkBytes) {
    EncodeGroups(in, kChunkBytes, block);
    in += kChunkBytes;
    left -= kChunkBytes;
    for (std::size_t line = 0; line < 4; ++line) {
      std::memcpy(dst, block + line * kBase64LineLength, kBase64LineLength);
      dst += kBase64LineLength;
      if (left > 0 || line < 3) {
        dst[0] = '\r';
        dst[1] = '\n';
        dst += 2;
      }
    }
  }

  // The rest: fewer than four lines, the last of them possibly short and padded.
  if (left > 0) {
    const std::size_t whole = left / 3 * 3;
    EncodeGroups(in, whole, block);
    std::size_t chars = whole / 3 * 4;
    if (left > whole) {
      EncodeTail(in + whole, left - whole, block + chars);
      chars += 4;
    }
    for (std::size_t offset = 0; offset < chars; offset += kBase64LineLength) {
      if (offset > 0) {
        dst[0] = '\r';
        dst[1] = '\n';
        dst += 2;
      }
      const std::size_t length = std::min(kBase64LineLength, chars - offset);
      std::memcpy(dst, block + offset, length);
      dst += length;
    }
  }
}

}  // namespace Pendrel::detail
