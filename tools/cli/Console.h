// What the command line takes from the platform: its arguments as UTF-8 and standard streams
// that pass bytes unchanged. One file per platform (detail/Console_posix.cpp,
// detail/Console_win.cpp); the build picks one.
#pragma once

#include <string>
#include <vector>

namespace PendrelCli {

// The program's arguments after its own name, as UTF-8: on Linux as the system passes them
// (UTF-8 by convention); on Windows read from the wide command line, so that every character
// arrives, whatever the ANSI code page.
std::vector<std::string> ProgramArguments(int argc, char** argv);

// Makes standard input, output and error pass bytes unchanged, so that every platform writes
// the same bytes (Windows would otherwise turn "\n" into "\r\n"), and makes a write to a
// closed pipe fail with an error instead of ending the program (Linux). Call once, first.
void PrepareStandardStreams();

}  // namespace PendrelCli
