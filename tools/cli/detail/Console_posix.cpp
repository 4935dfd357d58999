// Linux: arguments are UTF-8 already and the standard streams never translate.
#include "tools/cli/Console.h"

namespace PendrelCli {

std::vector<std::string> ProgramArguments(int argc, char** argv) {
  return std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc);
}

void PrepareStandardStreams() {}

}  // namespace PendrelCli
