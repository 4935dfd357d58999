// Windows squatter: the pipe name taken with what a careless or hostile program would use, a
// NULL DACL (anybody may connect) and unlimited instances (others may add theirs).
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <string>

#include "tests/reliability/fault_handler/FaultHandler.h"
#include "tests/reliability/fault_handler/Squat.h"

namespace pendrel_fault {

std::uint32_t CurrentProcessId() { return static_cast<std::uint32_t>(::GetCurrentProcessId()); }

int SquatRaw(const std::wstring& name, const std::string& reportFile,
             std::chrono::milliseconds lifetime) {
  SECURITY_DESCRIPTOR descriptor;
  if (!::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION) ||
      !::SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE)) {
    return kExitSquatFailed;
  }
  SECURITY_ATTRIBUTES attributes{sizeof(attributes), &descriptor, FALSE};
  const std::wstring path = L"\\\\.\\pipe\\" + name;
  const HANDLE pipe = ::CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                         PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
                                         PIPE_UNLIMITED_INSTANCES, 4096, 4096, 0, &attributes);
  if (pipe == INVALID_HANDLE_VALUE) return kExitSquatFailed;
  const HANDLE event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  OVERLAPPED overlapped{};
  overlapped.hEvent = event;
  Report(reportFile, "ready");
  bool connected = false;
  if (::ConnectNamedPipe(pipe, &overlapped)) {
    connected = true;
  } else if (const DWORD error = ::GetLastError(); error == ERROR_PIPE_CONNECTED) {
    connected = true;
  } else if (error == ERROR_IO_PENDING) {
    connected = ::WaitForSingleObject(event, static_cast<DWORD>(lifetime.count())) == WAIT_OBJECT_0;
    if (!connected) {
      ::CancelIo(pipe);
      DWORD ignored = 0;
      ::GetOverlappedResult(pipe, &overlapped, &ignored, TRUE);
    }
  }
  if (connected) Report(reportFile, "connected");
  ::CloseHandle(pipe);
  ::CloseHandle(event);
  return kExitNormal;
}

}  // namespace pendrel_fault
