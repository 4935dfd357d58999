// Windows side of the reliability support: processes as OpenProcess sees them.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
// After windows.h:
#include <psapi.h>

#include <thread>

#include "tests/reliability/ReliabilitySupport.h"

namespace pendrel_reliability {

bool ProcessGoneWithin(std::uint32_t pid, std::chrono::milliseconds timeout) {
  const HANDLE process = ::OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
  if (process == nullptr) return true;  // no such process any more
  const bool ended =
      ::WaitForSingleObject(process, static_cast<DWORD>(timeout.count())) == WAIT_OBJECT_0;
  ::CloseHandle(process);
  return ended;
}

bool ProcessEndedWithin(std::uint32_t pid, std::chrono::milliseconds timeout) {
  return ProcessGoneWithin(pid, timeout);
}

CTolvane::CHandlerExit KilledByTheLibrary() { return {CTolvane::EHandlerEnd::Exited, 1}; }

bool KillProcess(std::uint32_t pid) {
  const HANDLE process = ::OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(pid));
  if (process == nullptr) return false;
  const bool killed = ::TerminateProcess(process, 137) != FALSE;
  ::CloseHandle(process);
  return killed;
}

std::uint64_t ResidentBytes() {
  PROCESS_MEMORY_COUNTERS counters{};
  if (!::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof(counters))) return 0;
  return counters.WorkingSetSize;
}

}  // namespace pendrel_reliability
