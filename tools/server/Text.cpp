#include "tools/server/Text.h"

#include <charconv>  // std::to_chars
#include <cmath>     // std::llround
#include <cstdio>    // std::snprintf
#include <ctime>     // gmtime_r

namespace PendrelServer {

std::string JsonQuoted(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out.push_back('"');
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
          out += escaped;
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
  return out;
}

namespace {

// `value` in `width` decimal digits, zeros in front (a wider value keeps all its digits).
void AppendPadded(std::string& out, std::uint64_t value, int width) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  for (auto length = end - digits; length < width; ++length) out.push_back('0');
  out.append(digits, end);
}

}  // namespace

void AppendDecimal(std::string& out, std::uint64_t value) { AppendPadded(out, value, 1); }

void AppendFixed6(std::string& out, double value) {
  const long long micros = value > 0 ? std::llround(value * 1e6) : 0;
  AppendPadded(out, static_cast<std::uint64_t>(micros / 1000000), 1);
  out.push_back('.');
  AppendPadded(out, static_cast<std::uint64_t>(micros % 1000000), 6);
}

void AppendUtcTime(std::string& out, std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  const struct {
    int Value;
    int Width;
    char After;
  } fields[] = {
      {parts.tm_year + 1900, 4, '-'},    {parts.tm_mon + 1, 2, '-'}, {parts.tm_mday, 2, 'T'},
      {parts.tm_hour, 2, ':'},           {parts.tm_min, 2, ':'},     {parts.tm_sec, 2, '.'},
      {static_cast<int>(millis), 3, 'Z'}};
  for (const auto& field : fields) {
    AppendPadded(out, static_cast<std::uint64_t>(field.Value), field.Width);
    out.push_back(field.After);
  }
}

void AppendHex16(std::string& out, std::uint64_t value) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, value, 16).ptr;
  out.append(16 - static_cast<std::size_t>(end - digits), '0');
  out.append(digits, end);
}

}  // namespace PendrelServer
