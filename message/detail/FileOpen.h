// Opening files named by wide paths, the one place where the message model meets the file
// system. One implementation per platform (FileOpen_win.cpp, FileOpen_posix.cpp).
#pragma once

#include <cstdio>  // std::FILE
#include <memory>
#include <string>

namespace Pendrel::detail {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// An open C stream, closed when the owner goes.
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Opens `path` for binary reading; null when it cannot be opened. The descriptor is not
// inherited by child processes started meanwhile.
FilePtr OpenForBinaryRead(const std::wstring& path);

// Whether `c` ends the directory part of a path. Windows names split only at "\" (a "/" is
// kept in the file name, as hosts expect); other systems split at both "/" and "\".
bool IsPathSeparator(wchar_t c);

}  // namespace Pendrel::detail
