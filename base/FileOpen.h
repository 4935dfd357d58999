// Opening files named by wide paths, the one place where the library meets the file system.
// One implementation per platform (FileOpen_win.cpp, FileOpen_posix.cpp).
#pragma once

#include <cstdio>  // std::FILE
#include <memory>
#include <string>

namespace Pendrel::base {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// An open C stream, closed when the owner goes.
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Opens `path` with the C library's `mode` ("rb", "a", "w", …); null when it cannot be
// opened. The descriptor is not inherited by child processes started meanwhile. On Linux a
// writing mode ("a", "w", with "b" or "+") creates the file with mode 0600 (the user's
// alone) and refuses (null) a path whose last part is a symbolic link.
FilePtr OpenFile(const std::wstring& path, const char* mode);

// Opens the file `path` for binary reading; null when it cannot be opened or is a folder
// (which some systems open for reading, failing only the reads).
FilePtr OpenForBinaryRead(const std::wstring& path);

// Whether `c` ends the directory part of a path. Windows names split only at "\" (a "/" is
// kept in the file name, as hosts expect); other systems split at both "/" and "\".
bool IsPathSeparator(wchar_t c);

// The separator this system writes between folder and file names.
wchar_t PreferredPathSeparator();

// Creates the folder `path` (its parent must exist), on Linux with mode 0700 (the user's
// alone); an existing folder is no failure and is left as it is, and nothing is reported
// either way.
void CreateFolder(const std::wstring& path);

}  // namespace Pendrel::base
