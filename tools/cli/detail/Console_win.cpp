// Windows: main's narrow arguments are in the ANSI code page and lose what it cannot hold,
// so the arguments are split again from the wide command line, as the C runtime splits them.
#include <windows.h>  // first: shellapi.h builds on it

#include <fcntl.h>     // _O_BINARY
#include <io.h>        // _setmode
#include <shellapi.h>  // CommandLineToArgvW

#include <cstdio>
#include <memory>

#include "tools/cli/Console.h"
#include "tools/cli/Text.h"

namespace PendrelCli {
namespace {

struct LocalFreeDeleter {
  void operator()(LPWSTR* block) const { ::LocalFree(block); }
};

}  // namespace

std::vector<std::string> ProgramArguments(int, char**) {
  int count = 0;
  const std::unique_ptr<LPWSTR, LocalFreeDeleter> wide(
      ::CommandLineToArgvW(::GetCommandLineW(), &count));
  std::vector<std::string> arguments;
  for (int i = 1; wide && i < count; ++i) arguments.push_back(Utf8FromWide(wide.get()[i]));
  return arguments;
}

void PrepareStandardStreams() {
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
}

}  // namespace PendrelCli
