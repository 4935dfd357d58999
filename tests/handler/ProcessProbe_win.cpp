#include <windows.h>

#include "tests/handler/ProcessProbe.h"

namespace pendrel_test {

bool ProcessExists(std::uint32_t pid) {
  if (pid == 0) return false;
  HANDLE process = ::OpenProcess(SYNCHRONIZE, FALSE, pid);
  if (process == nullptr) return false;
  const bool running = ::WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
  ::CloseHandle(process);
  return running;
}

}  // namespace pendrel_test
