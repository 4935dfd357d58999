// Reading of MIME header field values with parameters: `text/plain; charset=utf-8;
// name="a"`, `form-data; name="f"; filename="a.txt"`.
//
// Quoted values are taken as written, up to the quote that ends the parameter (one followed
// by nothing but blanks before the next ";" or the end): the library writes names between
// quotes without escaping them, so `name="say "hi""` reads as `say "hi"`, and a backslash is
// an ordinary character, as browsers and curl write form data. RFC 2231 extended values in
// UTF-8, ISO-8859-1 or US-ASCII (`filename*=UTF-8''r%C3%A9sum%C3%A9.pdf`) are decoded into
// UTF-8 and win over the plain ones.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace PendrelServer::detail {

struct CHeaderValue {
  std::string Value;  // before the first ";", trimmed, lower-cased ("multipart/mixed")
  std::vector<std::pair<std::string, std::string>> Parameters;  // names lower-cased

  // The value of parameter `name` (lower case), or nullptr; the first of duplicates wins.
  const std::string* Find(std::string_view name) const;
};

// Reads `field` into `out` (replaced). Returns false for a quoted value without its closing
// quote, a bad percent-escape in an extended value or an extended value in another charset.
// Parameters without "=" are skipped.
bool ReadHeaderValue(std::string_view field, CHeaderValue& out);

// Decodes the %XX escapes of `text` into `out` (replaced); false for a "%" not followed by two
// hexadecimal digits.
bool PercentDecode(std::string_view text, std::string& out);

// Lower-cased ASCII letters, other bytes kept.
std::string AsciiLower(std::string_view text);

// `text` without its leading and trailing blanks (spaces and tabs).
std::string_view TrimBlanks(std::string_view text);

}  // namespace PendrelServer::detail
