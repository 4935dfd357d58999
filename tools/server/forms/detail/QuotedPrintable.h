// Decoding of quoted-printable parts (RFC 2045), as mail-style MIME writers send text with
// a few non-ASCII bytes.
#pragma once

#include <string>
#include <string_view>

namespace PendrelServer::detail {

// Appends the bytes `text` encodes to `out`: "=XX" (hexadecimal, either case) is that byte,
// "=" at the end of a line (a soft line break) is dropped together with the line end, and
// blanks before a line end are dropped as RFC 2045 says an encoder may add them. Returns
// false, with `out` holding part of the bytes, for "=" followed by anything else.
bool AppendQuotedPrintableDecoded(std::string_view text, std::string& out);

}  // namespace PendrelServer::detail
