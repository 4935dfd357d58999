// Text as the operating system takes it in names and arguments: UTF-8 where a character
// above 0xFFFF is one four-byte sequence. Unlike the wire conversions (Utf16ToUtf8), which
// write each UTF-16 unit by itself, this is what a file system or exec() must see for the
// name to be found again.
#pragma once

#include <string>

namespace Pendrel::base {

// UTF-8 of `text`: surrogate pairs of a 16-bit wchar_t are combined; lone surrogates and
// values beyond Unicode are dropped.
std::string ToSystemText(const std::wstring& text);

}  // namespace Pendrel::base
