// The commands of pendrel, run against a handler through the library's public interface:
// CTolvane::CHandler starts the handler and carries the exchanges, the Pendrel records and
// their forms give what is printed.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace PendrelCli {

// Reads `arguments` (the program's, without its own name, UTF-8), runs what they ask for and
// returns the exit status of ExitCodes.h. Responses and help go to `out`, nothing else;
// errors, the progress line, notes and the handler's own output go to `err`. A command that
// starts a handler watches for stop signals meanwhile (Signals.h), so call it from main's
// thread before any other thread starts; it may end the process itself on a signal that
// comes while no handler is held. Runs on the caller's thread.
int RunCli(const std::vector<std::string>& arguments, std::FILE* out, std::FILE* err);

}  // namespace PendrelCli
