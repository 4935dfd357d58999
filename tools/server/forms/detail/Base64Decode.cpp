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
  std::uint32_t group = 0;
  int count = 0;
  std::size_t i = 0;
  for (; i < text.size(); ++i) {
    const std::uint8_t value = kTable[static_cast<unsigned char>(text[i])];
    if (value < 64) {
      group = (group << 6) | value;
      if (++count == 4) {
        *next++ = static_cast<char>(group >> 16);
        *next++ = static_cast<char>(group >> 8);
        *next++ = static_cast<char>(group);
        group = 0;
        count = 0;
      }
    } else if (value == kBlank) {
      continue;
    } else if (value == kPad) {
      break;
    } else {
      return finish(false);
    }
  }
  if (i < text.size()) {
    // Padding: "xx==" or "xxx=", then only blanks.
    if (count < 2) return finish(false);
    int pads = 0;
    for (; i < text.size(); ++i) {
      const std::uint8_t value = kTable[static_cast<unsigned char>(text[i])];
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
    *next++ = static_cast<char>(group >> 4);
  } else if (count == 3) {
    *next++ = static_cast<char>(group >> 10);
    *next++ = static_cast<char>(group >> 2);
  }
  return finish(true);
}

}  // namespace PendrelServer::detail
