// The line that Error writes to the process's standard output. One implementation per
// platform (StandardOutput_win.cpp, StandardOutput_posix.cpp).
#pragma once

#include <string>

namespace Pendrel::detail {

// Writes `text` and a line end to the standard output and flushes it. Windows: through
// std::wcout. Elsewhere: UTF-8 through the byte stream, or wide characters when the host has
// made stdout wide-oriented; stdout's orientation never changes, so the host's own output
// (printf, std::cout, or wprintf and std::wcout) keeps appearing. Nothing is reported. Any
// thread; the line is not interleaved with other stdio output.
void WriteStandardOutputLine(const std::wstring& text);

}  // namespace Pendrel::detail
