// pendrel_supervise_host: a host that a test kills. It starts the fault handler at
// argv[1] as a stubborn handler that writes its process id to argv[2], and then waits for
// ever with the handler connected, until something ends it from outside.
//
//   pendrel_supervise_host FAULT_HANDLER PID_FILE
// Exit codes: 1 for a wrong command line or a failed Start; it never ends by itself otherwise.
#include <future>
#include <string>

#include "handler/CHandler.h"
#include "tests/support/Platform.h"

int main(int argc, char** argv) {
  if (argc != 3) return 1;
  const std::wstring handler = pendrel_test::ProgramPathFromBuild(argv[1]);
  const std::string pidFile = argv[2];
  CTolvane::CHandler host;
  const std::wstring arguments = L"--stubborn --lifetime-ms 30000 --pid-file \"" +
                                 std::wstring(pidFile.begin(), pidFile.end()) + L"\"";
  if (host.Start(handler, 0, arguments) != CTolvane::Ok) return 1;
  std::promise<void>().get_future().wait();  // never fulfilled: killed from outside
  return 0;
}
