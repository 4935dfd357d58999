#include <windows.h>

#include <memory>
#include <mutex>
#include <utility>

#include "base/ScopedHandle_win.h"
#include "handler/detail/ChildProcess.h"

namespace CTolvane::detail {
namespace {

using Pendrel::base::ScopedFileHandle;
using Pendrel::base::ScopedKernelHandle;
using Pendrel::base::ScopedRegisteredWait;

// The exit code of a handler the library kills.
constexpr UINT kKilledExitCode = 1;
// How long the supervision waits for a killed process to be gone.
constexpr DWORD kKillWaitMs = 10000;

std::mutex g_observerMutex;
std::function<void(std::uint32_t, const CHandlerExit&)> g_observer;  // guarded by g_observerMutex

void TellObserver(DWORD id, HANDLE process) {
  DWORD code = 0;
  if (!::GetExitCodeProcess(process, &code)) return;
  const std::lock_guard<std::mutex> lock(g_observerMutex);
  if (g_observer) {
    g_observer(static_cast<std::uint32_t>(id),
               CHandlerExit{EHandlerEnd::Exited, static_cast<std::int32_t>(code)});
  }
}

// The job every handler runs in. The host alone holds a handle to it, so when the host ends,
// however it ends, the job closes and kills every handler (and what they started). Closed at
// the library's own exit, with the same effect.
HANDLE HandlerJob() {
  static const ScopedKernelHandle job = [] {
    ScopedKernelHandle made(::CreateJobObjectW(nullptr, nullptr));
    if (made) {
      JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
      limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
      if (!::SetInformationJobObject(made.Get(), JobObjectExtendedLimitInformation, &limits,
                                     sizeof limits)) {
        made.Reset();
      }
    }
    return made;
  }();
  return job.Get();
}

DWORD Milliseconds(std::chrono::milliseconds duration) {
  const auto count = duration.count();
  return count <= 0 ? 0 : count >= INFINITE ? INFINITE - 1 : static_cast<DWORD>(count);
}

CHandlerExit WaitForProcess(HANDLE process, std::chrono::milliseconds timeout) {
  if (process == nullptr) return {};
  DWORD code = 0;
  if (::WaitForSingleObject(process, Milliseconds(timeout)) != WAIT_OBJECT_0 ||
      !::GetExitCodeProcess(process, &code)) {
    return {EHandlerEnd::Running, 0};
  }
  return {EHandlerEnd::Exited, static_cast<std::int32_t>(code)};
}

// A released process, owned by its thread-pool wait: the wait's one callback kills it if its
// grace period passed, and frees everything.
struct Supervised {
  std::mutex mutex;  // held while the wait is being registered
  ScopedKernelHandle process;
  DWORD id = 0;
  HANDLE wait = nullptr;  // guarded by mutex

  static void CALLBACK GraceEnded(PVOID context, BOOLEAN timedOut) {
    const std::unique_ptr<Supervised> self(static_cast<Supervised*>(context));
    HANDLE wait = nullptr;
    {
      const std::lock_guard<std::mutex> lock(self->mutex);
      wait = self->wait;
    }
    if (timedOut) {
      ::TerminateProcess(self->process.Get(), kKilledExitCode);
      ::WaitForSingleObject(self->process.Get(), kKillWaitMs);
    }
    TellObserver(self->id, self->process.Get());
    // Not waiting: this is the wait's own callback. WT_EXECUTEONLYONCE: it runs no more.
    ::UnregisterWaitEx(wait, nullptr);
  }
};

// The environment block of the host with `name`=`value` in place of any entry of that name
// (names compare without case), kept in the sorted order Windows expects.
std::wstring ChildEnvironment(const std::wstring& name, const std::wstring& value) {
  struct Strings {
    wchar_t* block = ::GetEnvironmentStringsW();
    ~Strings() {
      if (block != nullptr) ::FreeEnvironmentStringsW(block);
    }
  } strings;
  const auto nameOf = [](const std::wstring& entry) {
    return entry.substr(0, entry.find(L'=', 1));
  };
  const auto compare = [](const std::wstring& a, const std::wstring& b) {
    return ::CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE);
  };
  std::wstring block;
  bool placed = false;
  const std::wstring ours = name + L"=" + value;
  for (const wchar_t* entry = strings.block; entry != nullptr && *entry != L'\0';) {
    const std::wstring text(entry);
    entry += text.size() + 1;
    const std::wstring entryName = nameOf(text);
    if (compare(entryName, name) == CSTR_EQUAL) continue;
    if (!placed && text[0] != L'=' && compare(entryName, name) == CSTR_GREATER_THAN) {
      block.append(ours).push_back(L'\0');
      placed = true;
    }
    block.append(text).push_back(L'\0');
  }
  if (!placed) block.append(ours).push_back(L'\0');
  block.push_back(L'\0');
  return block;
}

// An inheritable copy of the host's standard handle `which`, or of NUL when it has none.
ScopedFileHandle InheritableStandard(DWORD which, DWORD nulAccess) {
  const HANDLE standard = ::GetStdHandle(which);
  HANDLE copy = nullptr;
  if (standard != nullptr && standard != INVALID_HANDLE_VALUE &&
      ::DuplicateHandle(::GetCurrentProcess(), standard, ::GetCurrentProcess(), &copy, 0, TRUE,
                        DUPLICATE_SAME_ACCESS)) {
    return ScopedFileHandle(copy);
  }
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  return ScopedFileHandle(::CreateFileW(L"NUL", nulAccess, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                        &inherit, OPEN_EXISTING, 0, nullptr));
}

// The handles a redirected child gets as its standard input, output and error.
struct StandardHandles {
  ScopedFileHandle input;
  ScopedFileHandle output;  // output and error alike
};

// 0 or the system's error number; leaves `handles` empty for EChildOutput::Inherited.
DWORD OpenStandardHandles(const ChildOptions& options, StandardHandles& handles) {
  if (options.output == EChildOutput::Inherited) return 0;
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  switch (options.output) {
    case EChildOutput::Inherited:
    case EChildOutput::HostStderr:
      handles.output = InheritableStandard(STD_ERROR_HANDLE, GENERIC_WRITE);
      break;
    case EChildOutput::Discarded:
      handles.output.Reset(::CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                         &inherit, OPEN_EXISTING, 0, nullptr));
      break;
    case EChildOutput::File:
      handles.output.Reset(::CreateFileW(options.outputFile.c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                         &inherit, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
      break;
  }
  if (!handles.output) return ::GetLastError();
  handles.input = InheritableStandard(STD_INPUT_HANDLE, GENERIC_READ);
  if (!handles.input) return ::GetLastError();
  return 0;
}

// A process attribute list that lets a child inherit exactly `handles`.
class InheritList {
 public:
  InheritList(HANDLE* handles, std::size_t count) {
    SIZE_T size = 0;
    ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    m_storage = std::make_unique<unsigned char[]>(size);
    auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_storage.get());
    if (!::InitializeProcThreadAttributeList(list, 1, 0, &size)) return;
    m_list = list;
    if (!::UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles,
                                     count * sizeof(HANDLE), nullptr, nullptr)) {
      ::DeleteProcThreadAttributeList(m_list);
      m_list = nullptr;
    }
  }
  ~InheritList() {
    if (m_list != nullptr) ::DeleteProcThreadAttributeList(m_list);
  }
  InheritList(const InheritList&) = delete;
  InheritList& operator=(const InheritList&) = delete;

  LPPROC_THREAD_ATTRIBUTE_LIST Get() const { return m_list; }

 private:
  std::unique_ptr<unsigned char[]> m_storage;
  LPPROC_THREAD_ATTRIBUTE_LIST m_list = nullptr;
};

}  // namespace

bool EndedByKill(const CHandlerExit& end, bool outlivedGrace) {
  return outlivedGrace && end.How == EHandlerEnd::Exited &&
         end.Code == static_cast<std::int32_t>(kKilledExitCode);
}

void SetCollectedObserver(std::function<void(std::uint32_t, const CHandlerExit&)> observer) {
  const std::lock_guard<std::mutex> lock(g_observerMutex);
  g_observer = std::move(observer);
}

struct ChildProcess::Impl {
  ScopedKernelHandle process;
  DWORD id = 0;
  bool released = false;
  std::function<void()> onExit;
  // Registered thread-pool wait on `process`. Declared last, so that it is unregistered
  // (waiting for a callback that already runs) before `onExit` and `process` go.
  ScopedRegisteredWait wait;

  static void CALLBACK ProcessEnded(PVOID context, BOOLEAN /*timedOut*/) {
    static_cast<Impl*>(context)->onExit();
  }
};

ChildProcess::ChildProcess() : m_impl(std::make_unique<Impl>()) {}

ChildProcess::~ChildProcess() { Release(kDefaultGracePeriod); }

std::uint32_t ChildProcess::Start(const std::wstring& commandLine,
                                  const std::vector<std::wstring>& /*arguments*/,
                                  const ChildOptions& options) {
  const HANDLE job = HandlerJob();
  if (job == nullptr) return ::GetLastError();
  StandardHandles standard;
  if (const DWORD error = OpenStandardHandles(options, standard); error != 0) return error;
  std::wstring environment = ChildEnvironment(
      std::wstring(kPipeFolderVariable, kPipeFolderVariable + sizeof kPipeFolderVariable - 1),
      options.pipeFolder);

  std::wstring writable = commandLine;  // CreateProcessW may write into its command line
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof startup.StartupInfo;
  DWORD flags = CREATE_SUSPENDED | CREATE_UNICODE_ENVIRONMENT;
  BOOL inherit = FALSE;
  HANDLE inherited[2] = {standard.input.Get(), standard.output.Get()};
  std::unique_ptr<InheritList> list;
  if (standard.output) {
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = standard.input.Get();
    startup.StartupInfo.hStdOutput = standard.output.Get();
    startup.StartupInfo.hStdError = standard.output.Get();
    inherit = TRUE;
    // Only these two; without the list (older systems) every inheritable handle would go.
    list = std::make_unique<InheritList>(inherited, 2);
    if (list->Get() != nullptr) {
      startup.StartupInfo.cb = sizeof startup;
      startup.lpAttributeList = list->Get();
      flags |= EXTENDED_STARTUPINFO_PRESENT;
    }
  }
  PROCESS_INFORMATION info{};
  if (!::CreateProcessW(nullptr, writable.data(), nullptr, nullptr, inherit, flags,
                        environment.data(), nullptr, &startup.StartupInfo, &info)) {
    return ::GetLastError();
  }
  ScopedKernelHandle process(info.hProcess);
  const ScopedKernelHandle thread(info.hThread);
  // In the job before its first instruction, so nothing it starts escapes the job either.
  if (!::AssignProcessToJobObject(job, process.Get())) {
    const DWORD error = ::GetLastError();
    ::TerminateProcess(process.Get(), kKilledExitCode);
    return error;
  }
  ::ResumeThread(thread.Get());
  m_impl->process = std::move(process);
  m_impl->id = info.dwProcessId;
  return 0;
}

std::uint32_t ChildProcess::Id() const { return m_impl->id; }

void ChildProcess::WatchExit(std::function<void()> onExit) {
  Impl& impl = *m_impl;
  if (!impl.process || impl.wait || impl.released) return;
  impl.onExit = std::move(onExit);
  HANDLE wait = nullptr;
  // Unwatched on failure: a dead handler is then noticed by the time limit.
  if (::RegisterWaitForSingleObject(&wait, impl.process.Get(), &Impl::ProcessEnded, &impl, INFINITE,
                                    WT_EXECUTEONLYONCE)) {
    impl.wait.Reset(wait);
  }
}

CHandlerExit ChildProcess::WaitForExit(std::chrono::milliseconds timeout) {
  return WaitForProcess(m_impl->process.Get(), timeout);
}

std::function<CHandlerExit(std::chrono::milliseconds)> ChildProcess::ExitWaiter() const {
  HANDLE copy = nullptr;
  if (m_impl->process &&
      !::DuplicateHandle(::GetCurrentProcess(), m_impl->process.Get(), ::GetCurrentProcess(), &copy,
                         SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, 0)) {
    copy = nullptr;
  }
  auto process = std::make_shared<ScopedKernelHandle>(copy);
  return [process](std::chrono::milliseconds timeout) {
    return WaitForProcess(process->Get(), timeout);
  };
}

void ChildProcess::Release(std::chrono::milliseconds gracePeriod) {
  Impl& impl = *m_impl;
  if (impl.released) return;
  impl.released = true;
  impl.wait.Reset();  // the exit watch ends; a running callback is waited for
  impl.onExit = nullptr;
  if (!impl.process) return;
  auto supervised = std::make_unique<Supervised>();
  supervised->process = std::move(impl.process);
  supervised->id = impl.id;
  const DWORD graceMs = Milliseconds(gracePeriod);
  Supervised* const raw = supervised.get();
  std::unique_lock<std::mutex> lock(raw->mutex);
  HANDLE wait = nullptr;
  if (::RegisterWaitForSingleObject(&wait, raw->process.Get(), &Supervised::GraceEnded, raw,
                                    graceMs, WT_EXECUTEONLYONCE)) {
    raw->wait = wait;
    // The callback owns it from here; it frees it once it has the lock.
    supervised.release();  // NOLINT(bugprone-unused-return-value)
    lock.unlock();
    return;
  }
  lock.unlock();
  // No wait could be registered: no grace period either.
  ::TerminateProcess(raw->process.Get(), kKilledExitCode);
}

}  // namespace CTolvane::detail
