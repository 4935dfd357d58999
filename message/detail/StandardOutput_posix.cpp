#include <stdio.h>   // flockfile, funlockfile, fileno
#include <unistd.h>  // write

#include <cstdio>
#include <cwchar>  // fwide, fputwc

#include "base/RetryOnEintr.h"
#include "base/SystemText.h"
#include "message/detail/StandardOutput.h"

namespace Pendrel::detail {
namespace {

void WriteAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written =
        base::RetryOnEintr([&] { return ::write(fd, bytes.data() + done, bytes.size() - done); });
    if (written <= 0) return;
    done += static_cast<std::size_t>(written);
  }
}

}  // namespace

void WriteStandardOutputLine(const std::wstring& text) {
  // glibc's stdout takes the orientation of its first use and then silently drops output of
  // the other kind: writing through std::wcout would lose every later printf of the host.
  std::FILE* const out = stdout;
  flockfile(out);
  const int orientation = std::fwide(out, 0);
  if (orientation > 0) {
    for (wchar_t c : text) std::fputwc(c, out);
    std::fputwc(L'\n', out);
    std::fflush(out);
  } else {
    const std::string line = base::ToSystemText(text) + '\n';
    if (orientation < 0) {
      std::fwrite(line.data(), 1, line.size(), out);
      std::fflush(out);
    } else {
      // Any stdio write would fix an orientation the host has not chosen yet: what the
      // stream holds goes out first, then the line goes straight to its descriptor.
      std::fflush(out);
      WriteAll(fileno(out), line);
    }
  }
  funlockfile(out);
}

}  // namespace Pendrel::detail
