// Text conversions of the server: UTF-8 on the wire against the wide strings of the records.
//
// The library keeps its converters to itself, so the server brings its own. UTF-8 is decoded
// fully (a character above U+FFFF becomes one unit where wchar_t is 32 bits wide); invalid
// bytes become U+FFFD. Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

namespace PendrelServer {

std::wstring WideFromUtf8(std::string_view text);
std::string Utf8FromWide(std::wstring_view text);

// `text` as a JSON string literal, quotes included (control characters escaped).
std::string JsonQuoted(std::string_view text);

}  // namespace PendrelServer
