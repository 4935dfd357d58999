#include "tools/server/Serve.h"

#include <csignal>  // std::signal, SIGPIPE
#include <cstdio>

#include "tools/server/ServeOptions.h"
#include "tools/server/Server.h"

namespace PendrelServer {

int RunServe(const std::vector<std::string>& arguments) {
  CServeCommandLine commandLine;
  std::string error;
  if (!ParseServeCommandLine(arguments, commandLine, error)) {
    std::fprintf(stderr, "pendrel serve: %s\n%s", error.c_str(), ServeUsage());
    return kServeExitUsage;
  }
  CServeSettings settings;
  bool unreadable = false;
  if (!LoadServeSettings(commandLine, settings, error, unreadable)) {
    std::fprintf(stderr, "pendrel serve: %s\n", error.c_str());
    return unreadable ? kServeExitNoInput : kServeExitConfig;
  }
  // A client that goes away must not end the server.
  std::signal(SIGPIPE, SIG_IGN);
  CServer server(std::move(commandLine), std::move(settings));
  if (!server.Listen(error)) {
    std::fprintf(stderr, "pendrel serve: %s\n", error.c_str());
    return kServeExitOsError;
  }
  return server.Run();
}

}  // namespace PendrelServer
