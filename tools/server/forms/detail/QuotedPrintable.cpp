#include "tools/server/forms/detail/QuotedPrintable.h"

#include "tools/server/forms/detail/HexByte.h"

namespace PendrelServer::detail {
namespace {

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
    char byte;
    if (!ReadHexByte(text, i + 1, byte)) return false;
    out += byte;
    i += 3;
  }
  return true;
}

}  // namespace PendrelServer::detail
