// pendrel: drives a handler program from the shell as a host does. See Options.h for the
// command line and README.md for examples.
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "tools/cli/Commands.h"
#include "tools/cli/Console.h"
#include "tools/server/Serve.h"

int main(int argc, char** argv) {
  PendrelCli::PrepareStandardStreams();
  std::vector<std::string> arguments = PendrelCli::ProgramArguments(argc, argv);
  if (!arguments.empty() && arguments[0] == "serve") {
    return PendrelServer::RunServe({arguments.begin() + 1, arguments.end()});
  }
  return PendrelCli::RunCli(std::move(arguments), stdout, stderr);
}
