// Strict UTF-8 for text that arrives over HTTP (paths, queries, names in header fields), and
// its inverse. Unlike the library's own lenient converters these reject what is not UTF-8,
// so that a bad request is told apart from a request that means something else.
#pragma once

#include <string>
#include <string_view>

namespace PendrelServer::detail {

// Decodes `text` into `out` (replaced): one wchar_t per character where wchar_t holds 32 bits,
// a surrogate pair for characters above U+FFFF where it holds 16. Returns false, `out`
// unspecified, for invalid UTF-8: a stray or missing continuation byte, an overlong form, a
// value above U+10FFFF, a lone surrogate. A surrogate pair written as two three-byte
// sequences (as the library writes characters above U+FFFF) is accepted and joined.
bool DecodeUtf8(std::string_view text, std::wstring& out);

// The UTF-8 of `text`, characters above U+FFFF in four bytes (a surrogate pair held in two
// wchar_t is joined first). A lone surrogate is written in three bytes, as the library does.
std::string EncodeUtf8(std::wstring_view text);

}  // namespace PendrelServer::detail
