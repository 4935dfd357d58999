// The byte that two hex digits stand for, as "%41" in a percent-encoded name and "=41" in a
// quoted-printable part write it.
#pragma once

#include <cstddef>
#include <string_view>

namespace PendrelServer::detail {

// Reads the two hex digits at `text[at]` and `text[at + 1]` (either case) into `byte`; false
// when there are fewer than two characters there or one is not a hex digit.
inline bool ReadHexByte(std::string_view text, std::size_t at, char& byte) {
  const auto value = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  if (at > text.size() || text.size() - at < 2) return false;
  const int high = value(text[at]);
  const int low = value(text[at + 1]);
  if (high < 0 || low < 0) return false;
  byte = static_cast<char>(high * 16 + low);
  return true;
}

}  // namespace PendrelServer::detail
