#include <stdio.h>  // _wfopen

#include "message/detail/FileOpen.h"

namespace Pendrel::detail {

FilePtr OpenForBinaryRead(const std::wstring& path) {
  // "N": not inherited by processes started while the file is open.
  return FilePtr(_wfopen(path.c_str(), L"rbN"));
}

bool IsPathSeparator(wchar_t c) { return c == L'\\'; }

}  // namespace Pendrel::detail
