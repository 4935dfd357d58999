#include <stdio.h>    // _wfopen
#include <windows.h>  // CreateDirectoryW

#include "base/FileOpen.h"

namespace Pendrel::base {

FilePtr OpenFile(const std::wstring& path, const char* mode) {
  std::wstring wideMode(mode, mode + std::char_traits<char>::length(mode));
  // "N": not inherited by processes started while the file is open.
  wideMode += L'N';
  return FilePtr(_wfopen(path.c_str(), wideMode.c_str()));
}

// _wfopen refuses a folder by itself.
FilePtr OpenForBinaryRead(const std::wstring& path) { return OpenFile(path, "rb"); }

bool IsPathSeparator(wchar_t c) { return c == L'\\'; }

wchar_t PreferredPathSeparator() { return L'\\'; }

void CreateFolder(const std::wstring& path) { CreateDirectoryW(path.c_str(), nullptr); }

}  // namespace Pendrel::base
