// `pendrel serve`: the REST front-end. The pendrel program calls RunServe with the arguments
// after "serve". Linux only for now: the Windows build's RunServe says serve is not
// available in that build.
//
// Exit statuses (after BSD's sysexits): 0 stopped by SIGTERM or SIGINT; 64 wrong command
// line (and the Windows build); 66 the configuration file cannot be opened; 71 an address
// cannot be listened on; 78 the configuration is wrong.
#pragma once

#include <string>
#include <vector>

namespace PendrelServer {

inline constexpr int kServeExitUsage = 64;
inline constexpr int kServeExitNoInput = 66;
inline constexpr int kServeExitOsError = 71;
inline constexpr int kServeExitConfig = 78;

// Serves until SIGTERM or SIGINT and returns the exit status. Writes its messages and the
// access log on stderr. The main thread.
int RunServe(const std::vector<std::string>& arguments);

}  // namespace PendrelServer
