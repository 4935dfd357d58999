// The fault handler's squatter modes (--squat, --squat-raw): a program that takes a pipe
// name before the library does and waits for a client that should never come. Each writes
// "ready" to its report file once its endpoint exists and "connected" if a client connects;
// it returns the process's exit code. SquatRaw has one file per platform.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace pendrel_fault {

// With the library's own transport, which holds the name the way the library does.
int SquatWithTransport(const std::wstring& name, const std::string& reportFile,
                       std::chrono::milliseconds lifetime);

// With the bare system calls: Windows, a pipe with a NULL DACL and unlimited instances;
// Linux, a listening socket at the name's path, without taking the name's lock.
int SquatRaw(const std::wstring& name, const std::string& reportFile,
             std::chrono::milliseconds lifetime);

// Appends `line` and a line end to `reportFile`.
void Report(const std::string& reportFile, const char* line);

std::uint32_t CurrentProcessId();

}  // namespace pendrel_fault
