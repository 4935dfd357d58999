// Text of the command line: the UTF-8 of arguments, files and the terminal against the wide
// strings of the records (the programs' shared conversions), and the keys and texts the
// command line shapes. Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

#include "tools/text/Utf8Text.h"

namespace PendrelCli {

using PendrelTools::Utf8FromWide;
using PendrelTools::WideFromUtf8;

// `key` with every unit through towupper, as the request's lookups fold the keys they are
// given; a key stored this way is found by HasRequestKey and GetRequestValue.
std::wstring UpperKey(std::wstring key);

// `text` without the line ends and blanks at its end (the channel's error texts end in a
// line feed).
std::string TrimEnd(std::string text);

}  // namespace PendrelCli
