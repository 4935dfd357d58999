// pendrel: drives a handler program from the shell as a host does. See Options.h for the
// command line and README.md for examples.
#include <cstdio>

#include "tools/cli/Commands.h"
#include "tools/cli/Console.h"

int main(int argc, char** argv) {
  PendrelCli::PrepareStandardStreams();
  return PendrelCli::RunCli(PendrelCli::ProgramArguments(argc, argv), stdout, stderr);
}
