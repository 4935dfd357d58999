#include "tools/server/forms/detail/Base64Decode.h"

#include <array>
#include <cstdint>

namespace PendrelServer::detail {
namespace {

constexpr std::uint8_t kInvalid = 0xFF;
constexpr std::uint8_t kBlank = 0xFE;
constexpr std::uint8_t kPad = 0xFD;

// One table: the value of each alphabet character, and what every other byte is.
constexpr std::array<std::uint8_t, 256> MakeTable() {
  std::array<std::uint8_t, 256> table{};
  for (auto& entry : table) entry = kInvalid;
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::uint8_t i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = i;
  table['\r'] = table['\n'] = table[' '] = table['\t'] = kBlank;
  table['='] = kPad;
  return table;
}
constexpr std::array<std::uint8_t, 256> kTable = MakeTable();

std::uint8_t ValueOf(char c) { return kTable[static_cast<unsigned char>(c)]; }

}  // namespace

bool AppendBase64Decoded(std::string_view text, std::string& out) {
  // Written through a pointer into room made once: the parts can be tens of megabytes.
  const std::size_t start = out.size();
  out.resize(start + text.size() / 4 * 3 + 3);
  char* const first = out.data() + start;
  char* next = first;
  const auto finish = [&](bool result) {
    out.resize(start + static_cast<std::size_t>(next - first));
    return result;
  };

  // `pending` holds the last `count` (0 to 3) values of a group not yet complete, the oldest
  // in the highest bits. Four characters at a time go in at once when all four are in the
  // alphabet, whichever place in a group they start at: the 65-character lines put three of
  // four lines out of step with the groups.
  std::uint64_t pending = 0;
  unsigned count = 0;
  const auto emitGroup = [&](std::uint32_t group) {
    *next++ = static_cast<char>(group >> 16);
    *next++ = static_cast<char>(group >> 8);
    *next++ = static_cast<char>(group);
  };
  std::size_t i = 0;
  const std::size_t size = text.size();
  while (i < size) {
    if (size - i >= 4) {
      const std::uint32_t a = ValueOf(text[i]);
      const std::uint32_t b = ValueOf(text[i + 1]);
      const std::uint32_t c = ValueOf(text[i + 2]);
      const std::uint32_t d = ValueOf(text[i + 3]);
      if ((a | b | c | d) < 64) {
        pending = (pending << 24) | (a << 18) | (b << 12) | (c << 6) | d;
        emitGroup(static_cast<std::uint32_t>(pending >> (6 * count)) & 0xFFFFFF);
        pending &= (std::uint64_t{1} << (6 * count)) - 1;
        i += 4;
        continue;
      }
    }
    const std::uint8_t value = ValueOf(text[i]);
    if (value < 64) {
      pending = (pending << 6) | value;
      if (++count == 4) {
        emitGroup(static_cast<std::uint32_t>(pending));
        pending = 0;
        count = 0;
      }
    } else if (value == kPad) {
      break;
    } else if (value != kBlank) {
      return finish(false);
    }
    ++i;
  }
  if (i < size) {
    // Padding: "xx==" or "xxx=", then only blanks.
    if (count < 2) return finish(false);
    unsigned pads = 0;
    for (; i < size; ++i) {
      const std::uint8_t value = ValueOf(text[i]);
      if (value == kPad) {
        ++pads;
      } else if (value != kBlank) {
        return finish(false);
      }
    }
    if (pads != 4 - count) return finish(false);
  } else if (count == 1) {
    return finish(false);
  }
  // Unpadded tails are accepted: two or three characters still name whole bytes.
  if (count == 2) {
    *next++ = static_cast<char>(pending >> 4);
  } else if (count == 3) {
    *next++ = static_cast<char>(pending >> 10);
    *next++ = static_cast<char>(pending >> 2);
  }
  return finish(true);
}

}  // namespace PendrelServer::detail
