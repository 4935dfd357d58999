// The exit codes of pendrel besides the handler client's own error codes (1 to 5), after
// BSD's sysexits so that scripts can tell a wrong call from a failed handler.
#pragma once

namespace PendrelCli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitUsage = 64;       // the command line is wrong
inline constexpr int kExitDataError = 65;   // a --request document is not a JSON object
inline constexpr int kExitNoInput = 66;     // an input file cannot be read
inline constexpr int kExitCantCreate = 73;  // a file of --save cannot be written

}  // namespace PendrelCli
