#include <sys/stat.h>  // fstat, mkdir

#include <cstdio>

#include "base/FileOpen.h"
#include "base/SystemText.h"

namespace Pendrel::base {

FilePtr OpenFile(const std::wstring& path, const char* mode) {
  // "e": O_CLOEXEC, so a handler started meanwhile does not inherit the descriptor.
  const std::string systemMode = std::string(mode) + "e";
  return FilePtr(std::fopen(ToSystemText(path).c_str(), systemMode.c_str()));
}

FilePtr OpenForBinaryRead(const std::wstring& path) {
  FilePtr file = OpenFile(path, "rb");
  // fopen opens a folder for reading; only its reads fail.
  struct stat status {};
  if (file && (fstat(fileno(file.get()), &status) != 0 || S_ISDIR(status.st_mode))) return nullptr;
  return file;
}

bool IsPathSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }

wchar_t PreferredPathSeparator() { return L'/'; }

void CreateFolder(const std::wstring& path) { mkdir(ToSystemText(path).c_str(), 0777); }

}  // namespace Pendrel::base
