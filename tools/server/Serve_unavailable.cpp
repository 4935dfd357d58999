// Builds without the server's libraries (Windows: Debian has no MinGW builds of Boost or
// toml++): `pendrel serve` says so.
#include <cstdio>

#include "tools/server/Serve.h"

namespace PendrelServer {

int RunServe(const std::vector<std::string>&) {
  std::fprintf(stderr,
               "pendrel serve: serve is not available in this build (it needs Boost.Beast, "
               "Boost.URL and toml++, which this platform's build does not have)\n");
  return kServeExitUsage;
}

}  // namespace PendrelServer
