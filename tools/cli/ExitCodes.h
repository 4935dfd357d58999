// The exit statuses of pendrel, after BSD's sysexits, so that a script can tell a wrong call
// from a handler that is missing, one that failed, and a time-out. kExitStatuses explains
// them for the help; the README has the same table.
#pragma once

namespace PendrelCli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitErrorResponse = 1;  // --fail: the response has the error status 3
inline constexpr int kExitUsage = 64;         // the command line is wrong
inline constexpr int kExitDataError = 65;     // a --request document is not a valid request
inline constexpr int kExitNoInput = 66;       // an input file cannot be read
inline constexpr int kExitUnavailable = 69;   // the handler could not be started
inline constexpr int kExitSoftware = 70;      // the handler failed in the middle of an exchange
inline constexpr int kExitCantCreate = 73;    // a file of --save cannot be written
inline constexpr int kExitIoError = 74;       // pendrel's own output cannot be written
inline constexpr int kExitTimeout = 75;       // no answer or no connection in time
inline constexpr int kExitSignalBase = 128;   // + N: pendrel was stopped by signal N

struct CExitStatusRow {
  const char* Status;
  const char* Meaning;
};

// Every exit status with what it means, in the order the help lists them.
inline constexpr CExitStatusRow kExitStatuses[] = {
    {"0", "the handler answered (whatever the response's own status, unless --fail)"},
    {"1", "the response has the error status 3 and --fail was given"},
    {"64", "the command line is wrong"},
    {"65", "a --request document is not a valid request (JSON object, UTF-8, no BOM)"},
    {"66", "an input file or the request document cannot be read"},
    {"69",
     "the handler is unavailable: it could not be started, or it ended before it "
     "connected"},
    {"70",
     "the handler failed in the middle of an exchange: it closed the pipe, died, or "
     "sent something that is not an answer"},
    {"73", "a file of --save cannot be written"},
    {"74", "the response cannot be written to standard output (a closed pipe, a full disk)"},
    {"75", "a time-out: no answer within --timeout, or no connection within 10 s"},
    {"128+N",
     "pendrel was stopped by signal N (SIGHUP 129, SIGINT 130, SIGTERM 143); the "
     "handler was stopped first"},
};

}  // namespace PendrelCli
