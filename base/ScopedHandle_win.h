// The traits of Windows handles for ScopedHandle<Traits> (ScopedHandle.h), and the owners
// named after them. Windows is not uniform about handles: CreateFileW and CreateNamedPipeW fail
// with INVALID_HANDLE_VALUE, CreateEventW, OpenProcessToken and CreateProcessW's handles with
// NULL, and a RegisterWaitForSingleObject wait is ended by UnregisterWaitEx, not CloseHandle.
// Only the Windows files (_win.cpp) include this header.
//
// Thread rules: like a HANDLE; one owner at a time, no locking.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include "base/ScopedHandle.h"

namespace Pendrel::base {

// Files and pipes (CreateFileW, CreateNamedPipeW): INVALID_HANDLE_VALUE is empty. NULL, which
// these calls never return, counts as empty too.
struct HandleTraits {
  using Handle = HANDLE;
  static Handle Empty() { return INVALID_HANDLE_VALUE; }
  static bool IsValid(Handle handle) { return handle != INVALID_HANDLE_VALUE && handle != nullptr; }
  static void Close(Handle handle) noexcept { ::CloseHandle(handle); }
};

// Processes, threads, events and tokens (CreateProcessW, CreateEventW, OpenProcessToken):
// NULL is empty. (INVALID_HANDLE_VALUE is the current process's pseudo handle here, which is
// not closed.)
struct NullHandleTraits {
  using Handle = HANDLE;
  static Handle Empty() { return nullptr; }
  static bool IsValid(Handle handle) { return handle != nullptr && handle != INVALID_HANDLE_VALUE; }
  static void Close(Handle handle) noexcept { ::CloseHandle(handle); }
};

// A thread-pool wait made by RegisterWaitForSingleObject: NULL is empty. Closing unregisters
// it and returns only once a callback already running has finished, so the callback's data
// may be freed afterwards; it must therefore not be closed from that callback.
struct RegisteredWaitTraits {
  using Handle = HANDLE;
  static Handle Empty() { return nullptr; }
  static bool IsValid(Handle handle) { return handle != nullptr; }
  static void Close(Handle handle) noexcept { ::UnregisterWaitEx(handle, INVALID_HANDLE_VALUE); }
};

using ScopedFileHandle = ScopedHandle<HandleTraits>;
using ScopedKernelHandle = ScopedHandle<NullHandleTraits>;
using ScopedRegisteredWait = ScopedHandle<RegisteredWaitTraits>;

}  // namespace Pendrel::base
