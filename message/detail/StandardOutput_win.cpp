#include <iostream>  // std::wcout

#include "message/detail/StandardOutput.h"

namespace Pendrel::detail {

void WriteStandardOutputLine(const std::wstring& text) {
  std::wcout << text << std::endl;
  // A character the stream cannot convert must not silence every later message.
  std::wcout.clear();
}

}  // namespace Pendrel::detail
