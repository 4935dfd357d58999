// Decoding of base64 parts (RFC 2045): the standard alphabet, "=" padding, and line breaks
// (or any blanks) anywhere in the text, as the library writes its 65-character lines.
#pragma once

#include <string>
#include <string_view>

namespace PendrelServer::detail {

// Appends the bytes `text` encodes to `out`. Returns false, with `out` holding part of them,
// for a character outside the alphabet, text after the padding, or a group cut short
// (one character left over, or padding in the wrong place).
bool AppendBase64Decoded(std::string_view text, std::string& out);

}  // namespace PendrelServer::detail
