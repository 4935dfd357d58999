// Text conversions of the command line: the UTF-8 of arguments, files and the terminal
// against the wide strings of the records.
//
// The library keeps its own converters to itself, so a host brings its own. These decode
// UTF-8 fully: a character above U+FFFF becomes a surrogate pair where wchar_t is 16 bits
// wide (Windows) and one unit elsewhere; the library writes both as the same bytes.
// Invalid bytes become U+FFFD. Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

namespace PendrelCli {

std::wstring WideFromUtf8(std::string_view text);
std::string Utf8FromWide(std::wstring_view text);

// `key` with every unit through towupper, as the request's lookups fold the keys they are
// given; a key stored this way is found by HasRequestKey and GetRequestValue.
std::wstring UpperKey(std::wstring key);

// `text` without the line ends and blanks at its end (the channel's error texts end in a
// line feed).
std::string TrimEnd(std::string text);

}  // namespace PendrelCli
