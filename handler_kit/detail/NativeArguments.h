// The operating system's side of reading a handler's command line. Each platform's file
// (NativeArguments_win.cpp, NativeArguments_posix.cpp) defines these; the build picks one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace PendrelKit::detail {

// One of main's narrow arguments as a wide string, decoded the way the platform encoded it.
std::wstring NarrowArgumentToWide(std::string_view argument);

// The running process's arguments, path first; empty when they cannot be read.
std::vector<std::wstring> ReadProcessArguments();

}  // namespace PendrelKit::detail
