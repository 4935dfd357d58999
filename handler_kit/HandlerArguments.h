// The command line a handler program is started with, read back into its parts.
//
// The library starts a handler as
//   <path> _MN_=<pipe name> _DM_=<mode> _EX_=2 [extra arguments]
// (on Windows as one command line, elsewhere as an argument vector with the extra arguments
// already split at blanks and tabs, double quotes grouping). A handler connects to the pipe
// named by _MN_=; _DM_= is the number the host chose when starting it; the extra arguments
// are the host's and mean whatever the handler defines.
//
// Everything here is a pure function of its input and may be called from any thread, except
// ProcessArguments, which reads the running process's command line.
#pragma once

#include <string>
#include <vector>

namespace PendrelKit {

struct CHandlerArguments {
  std::wstring PipeName;  // after "_MN_=": the bare name, without \\.\pipe\ or a folder
  int Mode = 0;           // after "_DM_="; 0 when absent
  int ExValue = 0;        // after "_EX_="; 0 when absent (the library always sends 2)
  // Every other argument after the program's path, in order and as it stands.
  std::vector<std::wstring> ExtraArguments;
};

// Why a command line was refused. Texts: ArgumentErrorText.
enum class EArgumentError {
  None,
  MissingPipeName,  // no "_MN_=" argument, or an empty name after it
  BadMode,          // the text after "_DM_=" is not a decimal int
  BadExValue,       // the text after "_EX_=" is not a decimal int
};

// A short English text for `error` ("" for None), for a handler's own diagnostics.
const char* ArgumentErrorText(EArgumentError error);

// The line (without its line end) that a handler whose command line was refused with `error`
// prints for a person who started it by hand: what is wrong, that a host starts it, and how
// to run it with pendrel. `program` is the handler's path as it was started (argv[0]), UTF-8.
//   <program>: <ArgumentErrorText>. This is a pendrel handler: a host starts it and names the
//   pipe to connect to (_MN_=). To run it by hand: pendrel call <program> --command WORD
std::string StartedByHandText(const std::string& program, EArgumentError error);

// Reads `arguments`, whose first element is the program's path (skipped; an empty vector is
// a command line without arguments). The first argument that starts with "_MN_=", "_DM_="
// or "_EX_=" sets that value, wherever it stands; a later one with the same start is an
// ordinary extra argument. Numbers are an optional "-" and decimal digits that fit an int.
// On success fills `result` wholly and returns None; on failure returns the first error
// found and leaves `result` as it was.
EArgumentError ParseArguments(const std::vector<std::wstring>& arguments,
                              CHandlerArguments& result);

// As above for main's arguments. Narrow arguments are taken as the platform passes them:
// UTF-8 on Linux, the ANSI code page on Windows (where a handler that needs every character
// should use the wide overload or ProcessArguments instead).
EArgumentError ParseArguments(int argc, char** argv, CHandlerArguments& result);
EArgumentError ParseArguments(int argc, wchar_t** argv, CHandlerArguments& result);

// The running process's arguments, path first, as wide strings: on Windows split from the
// wide command line the way the C runtime splits it; on Linux read from /proc/self/cmdline
// and converted from UTF-8. Empty when they cannot be read.
std::vector<std::wstring> ProcessArguments();

}  // namespace PendrelKit
