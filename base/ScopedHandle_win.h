// Owners of Windows handles, one template for every kind: ScopedHandle<Traits> closes its
// handle when it goes and moves but does not copy. The traits say what the empty value is and
// how the handle is closed, because Windows is not uniform: CreateFileW and CreateNamedPipeW
// fail with INVALID_HANDLE_VALUE, CreateEventW, OpenProcessToken and CreateProcessW's handles
// with NULL, and a RegisterWaitForSingleObject wait is ended by UnregisterWaitEx, not
// CloseHandle. Only the Windows files (_win.cpp) include this header.
//
// Thread rules: like a HANDLE; one owner at a time, no locking.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

namespace Pendrel::base {

// A Traits type provides: `Handle` (the handle type), `static Handle Empty()`,
// `static bool IsValid(Handle)` and `static void Close(Handle)` (called only for valid ones).
template <typename Traits>
class ScopedHandle {
 public:
  using Handle = typename Traits::Handle;

  ScopedHandle() = default;
  // Takes ownership of `handle` (an empty value stays empty).
  explicit ScopedHandle(Handle handle) : m_handle(handle) {}
  ScopedHandle(ScopedHandle&& other) noexcept : m_handle(other.Release()) {}
  ScopedHandle& operator=(ScopedHandle&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  ScopedHandle(const ScopedHandle&) = delete;
  ScopedHandle& operator=(const ScopedHandle&) = delete;
  ~ScopedHandle() { Reset(); }

  // The handle, still owned; Traits::Empty() when empty.
  Handle Get() const { return m_handle; }
  explicit operator bool() const { return Traits::IsValid(m_handle); }

  // Gives the handle up without closing it; the owner is empty afterwards.
  Handle Release() noexcept {
    const Handle handle = m_handle;
    m_handle = Traits::Empty();
    return handle;
  }

  // Closes the handle held, if any, and takes `handle`.
  void Reset(Handle handle = Traits::Empty()) noexcept {
    if (Traits::IsValid(m_handle)) Traits::Close(m_handle);
    m_handle = handle;
  }

 private:
  Handle m_handle = Traits::Empty();
};

// Files and pipes (CreateFileW, CreateNamedPipeW): INVALID_HANDLE_VALUE is empty. NULL, which
// these calls never return, counts as empty too.
struct HandleTraits {
  using Handle = HANDLE;
  static Handle Empty() { return INVALID_HANDLE_VALUE; }
  static bool IsValid(Handle handle) { return handle != INVALID_HANDLE_VALUE && handle != nullptr; }
  static void Close(Handle handle) { ::CloseHandle(handle); }
};

// Processes, threads, events and tokens (CreateProcessW, CreateEventW, OpenProcessToken):
// NULL is empty. (INVALID_HANDLE_VALUE is the current process's pseudo handle here, which is
// not closed.)
struct NullHandleTraits {
  using Handle = HANDLE;
  static Handle Empty() { return nullptr; }
  static bool IsValid(Handle handle) { return handle != nullptr && handle != INVALID_HANDLE_VALUE; }
  static void Close(Handle handle) { ::CloseHandle(handle); }
};

// A thread-pool wait made by RegisterWaitForSingleObject: NULL is empty. Closing unregisters
// it and returns only once a callback already running has finished, so the callback's data
// may be freed afterwards; it must therefore not be closed from that callback.
struct RegisteredWaitTraits {
  using Handle = HANDLE;
  static Handle Empty() { return nullptr; }
  static bool IsValid(Handle handle) { return handle != nullptr; }
  static void Close(Handle handle) { ::UnregisterWaitEx(handle, INVALID_HANDLE_VALUE); }
};

using ScopedFileHandle = ScopedHandle<HandleTraits>;
using ScopedKernelHandle = ScopedHandle<NullHandleTraits>;
using ScopedRegisteredWait = ScopedHandle<RegisteredWaitTraits>;

}  // namespace Pendrel::base
