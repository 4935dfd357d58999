#include "tools/server/forms/detail/HeaderField.h"

#include "tools/server/forms/detail/HexByte.h"

#include <iterator>  // std::make_move_iterator

namespace PendrelServer::detail {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Where the quoted value that starts after `open` ends: the first quote followed by blanks
// and then ";" or the end. npos when there is none.
std::size_t FindClosingQuote(std::string_view field, std::size_t open) {
  for (std::size_t quote = field.find('"', open + 1); quote != std::string_view::npos;
       quote = field.find('"', quote + 1)) {
    std::size_t after = quote + 1;
    while (after < field.size() && IsBlank(field[after])) ++after;
    if (after == field.size() || field[after] == ';') return quote;
  }
  return std::string_view::npos;
}

// An RFC 2231 value: charset "'" language "'" percent-encoded text, read into UTF-8. The
// charsets read are UTF-8 and those whose bytes are their own code points: ISO-8859-1 (what
// MIME writers choose for Western European names) and US-ASCII.
bool ReadExtendedValue(std::string_view value, std::string& out) {
  const std::size_t first = value.find('\'');
  if (first == std::string_view::npos) return false;
  const std::size_t second = value.find('\'', first + 1);
  if (second == std::string_view::npos) return false;
  const std::string charset = AsciiLower(value.substr(0, first));
  if (!PercentDecode(value.substr(second + 1), out)) return false;
  if (charset == "utf-8") return true;
  if (charset == "iso-8859-1" || charset == "latin1") {
    std::string utf8;
    utf8.reserve(out.size() * 2);
    for (const char c : out) {
      const auto byte = static_cast<unsigned char>(c);
      if (byte < 0x80) {
        utf8 += c;
      } else {
        utf8 += static_cast<char>(0xC0 | (byte >> 6));
        utf8 += static_cast<char>(0x80 | (byte & 0x3F));
      }
    }
    out = std::move(utf8);
    return true;
  }
  if (charset == "us-ascii") {
    for (const char c : out) {
      if (static_cast<unsigned char>(c) >= 0x80) return false;
    }
    return true;
  }
  return false;
}

}  // namespace

const std::string* CHeaderValue::Find(std::string_view name) const {
  for (const auto& [key, value] : Parameters) {
    if (key == name) return &value;
  }
  return nullptr;
}

std::string AsciiLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool PercentDecode(std::string_view text, std::string& out) {
  out.clear();
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    char byte;
    if (!ReadHexByte(text, i + 1, byte)) return false;
    out += byte;
    i += 2;
  }
  return true;
}

bool ReadHeaderValue(std::string_view field, CHeaderValue& out) {
  out.Value.clear();
  out.Parameters.clear();
  std::size_t pos = field.find(';');
  out.Value = AsciiLower(TrimBlanks(field.substr(0, pos)));
  // Extended values found, to put in front of the plain ones at the end.
  std::vector<std::pair<std::string, std::string>> extended;
  while (pos < field.size()) {
    ++pos;  // the ";"
    const std::size_t equals = field.find('=', pos);
    const std::size_t semicolon = field.find(';', pos);
    if (equals == std::string_view::npos || equals > semicolon) {
      pos = semicolon;  // no "=": skipped
      continue;
    }
    std::string name = AsciiLower(TrimBlanks(field.substr(pos, equals - pos)));
    std::size_t start = equals + 1;
    while (start < field.size() && IsBlank(field[start])) ++start;
    std::string value;
    if (start < field.size() && field[start] == '"') {
      const std::size_t close = FindClosingQuote(field, start);
      if (close == std::string_view::npos) return false;
      value.assign(field.substr(start + 1, close - start - 1));
      pos = field.find(';', close);
    } else {
      value.assign(TrimBlanks(field.substr(start, semicolon - start)));
      pos = semicolon;
    }
    if (!name.empty() && name.back() == '*') {
      name.pop_back();
      std::string decoded;
      if (!ReadExtendedValue(value, decoded)) return false;
      extended.emplace_back(std::move(name), std::move(decoded));
    } else {
      out.Parameters.emplace_back(std::move(name), std::move(value));
    }
  }
  out.Parameters.insert(out.Parameters.begin(), std::make_move_iterator(extended.begin()),
                        std::make_move_iterator(extended.end()));
  return true;
}

}  // namespace PendrelServer::detail
