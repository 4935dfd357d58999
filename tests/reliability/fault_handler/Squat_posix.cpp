// Linux squatter: a socket bound at the name's path in the user's pipe folder, as any program
// of the same user could make it, without the lock file the library holds for a live name.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>  // std::getenv
#include <string>

#include "json/TextConversion.h"
#include "tests/reliability/fault_handler/FaultHandler.h"
#include "tests/reliability/fault_handler/Squat.h"

namespace pendrel_fault {

std::uint32_t CurrentProcessId() { return static_cast<std::uint32_t>(::getpid()); }

int SquatRaw(const std::wstring& name, const std::string& reportFile,
             std::chrono::milliseconds lifetime) {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string folder = runtime != nullptr && runtime[0] == '/'
                                 ? std::string(runtime) + "/pendrel"
                                 : "/tmp/pendrel-" + std::to_string(::geteuid());
  ::mkdir(folder.c_str(), 0700);
  const std::string path = folder + "/" + Pendrel::Utf16ToUtf8(name);

  const int listener = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (listener < 0 || path.size() >= sizeof(address.sun_path)) return kExitSquatFailed;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener, 4) != 0) {
    return kExitSquatFailed;
  }
  Report(reportFile, "ready");
  pollfd ready{listener, POLLIN, 0};
  if (::poll(&ready, 1, static_cast<int>(lifetime.count())) > 0 && (ready.revents & POLLIN)) {
    const int client = ::accept(listener, nullptr, nullptr);
    if (client >= 0) {
      Report(reportFile, "connected");
      ::close(client);
    }
  }
  ::close(listener);
  return kExitNormal;
}

}  // namespace pendrel_fault
