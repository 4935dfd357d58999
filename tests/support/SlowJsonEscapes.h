// The JSON string escaping written out byte by byte: the reference that the bulk writer and
// its vector kernels are checked against.
#pragma once

#include <string>

namespace pendrel_test {

inline std::string EscapeSlowly(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '/':
        out += "\\/";
        break;
      case '"':
        out += "\\\"";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out += c;
        break;
    }
  }
  return out;
}

}  // namespace pendrel_test
