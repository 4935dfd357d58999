#include <fcntl.h>     // open
#include <sys/stat.h>  // fstat, mkdir

#include <cstdio>
#include <cstring>  // std::strchr

#include "base/FileOpen.h"
#include "base/RetryOnEintr.h"
#include "base/SystemText.h"
#include "base/UniqueFd.h"

namespace Pendrel::base {

FilePtr OpenFile(const std::wstring& path, const char* mode) {
  const std::string systemPath = ToSystemText(path);
  const bool update = std::strchr(mode, '+') != nullptr;
  int flags = O_CLOEXEC;  // a handler started meanwhile does not inherit the descriptor
  switch (mode[0]) {
    case 'r':
      // Reading follows links: hosts name their input files as they please.
      return FilePtr(std::fopen(systemPath.c_str(), (std::string(mode) + "e").c_str()));
    case 'w':
      flags |= O_CREAT | O_TRUNC;
      break;
    case 'a':
      flags |= O_CREAT | O_APPEND;
      break;
    default:
      return nullptr;
  }
  // A file the library writes is its user's alone, and a link planted in its place is not
  // followed to overwrite what it points to.
  flags |= O_NOFOLLOW | (update ? O_RDWR : O_WRONLY);
  UniqueFd fd(RetryOnEintr([&] { return ::open(systemPath.c_str(), flags, 0600); }));
  if (!fd) return nullptr;
  // The stream's mode only has to agree with the descriptor's ("w" does not truncate here);
  // "b" means nothing on this system.
  const char* const streamMode = mode[0] == 'a' ? (update ? "a+" : "a") : (update ? "w+" : "w");
  FilePtr file(::fdopen(fd.Get(), streamMode));
  if (file) fd.Release();
  return file;
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

void CreateFolder(const std::wstring& path) { ::mkdir(ToSystemText(path).c_str(), 0700); }

}  // namespace Pendrel::base
