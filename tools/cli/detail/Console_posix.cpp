// Linux: arguments are UTF-8 already and the standard streams never translate.
#include <csignal>

#include "tools/cli/Console.h"

namespace PendrelCli {

std::vector<std::string> ProgramArguments(int argc, char** argv) {
  return std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc);
}

void PrepareStandardStreams() {
  // A reader that goes away (pendrel … | head -c 1) makes writes fail with EPIPE, which
  // pendrel reports (exit status 74) after stopping the handler, instead of ending at once.
  // The library restores SIGPIPE for the handlers it starts.
  std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace PendrelCli
