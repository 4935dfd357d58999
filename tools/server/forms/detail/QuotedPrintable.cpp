#include "tools/server/forms/detail/QuotedPrintable.h"

namespace PendrelServer::detail {
namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

bool AppendQuotedPrintableDecoded(std::string_view text, std::string& out) {
  out.reserve(out.size() + text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (IsBlank(c)) {
      // Blanks that end a line are padding; the others are text.
      std::size_t end = i;
      while (end < text.size() && IsBlank(text[end])) ++end;
      if (end == text.size() || text[end] == '\r' || text[end] == '\n') {
        i = end;
      } else {
        out.append(text.substr(i, end - i));
        i = end;
      }
      continue;
    }
    if (c != '=') {
      out += c;
      ++i;
      continue;
    }
    // A soft line break: "=", blanks, then a line end (or the end of the text).
    std::size_t after = i + 1;
    while (after < text.size() && IsBlank(text[after])) ++after;
    if (after == text.size()) {
      i = after;
      continue;
    }
    if (text.substr(after, 2) == "\r\n") {
      i = after + 2;
      continue;
    }
    if (text[after] == '\n') {
      i = after + 1;
      continue;
    }
    if (text.size() - i < 3) return false;
    const int high = HexValue(text[i + 1]);
    const int low = HexValue(text[i + 2]);
    if (high < 0 || low < 0) return false;
    out += static_cast<char>(high * 16 + low);
    i += 3;
  }
  return true;
}

}  // namespace PendrelServer::detail
