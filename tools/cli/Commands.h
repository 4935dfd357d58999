// The commands of pendrel, run against a handler through the library's public interface:
// CTolvane::CHandler starts the handler and carries the exchanges, the Pendrel records and
// their forms give what is printed.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace PendrelCli {

// Reads `arguments` (the program's, without its own name, UTF-8), runs what they ask for and
// returns the exit code: kExitOk, the handler client's error code (1 to 5) when an exchange
// or the start failed, or one of ExitCodes.h. Responses and help go to `out`; errors, the
// progress line and notes to `err`. Runs on the caller's thread.
int RunCli(const std::vector<std::string>& arguments, std::FILE* out, std::FILE* err);

}  // namespace PendrelCli
