// A program that a test starts (a copy of itself in child mode, the test handler, the CLI),
// with its exit code. It never outlives its test: the destructor waits a little for the
// program to end and kills it if it does not. One implementation per platform
// (TestProcess_win.cpp, TestProcess_posix.cpp).
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace pendrel_test {

class TestProcess {
 public:
  // Starts arguments[0] with `arguments`. Windows gets one command line with every argument
  // in double quotes, other systems the argument vector itself.
  explicit TestProcess(const std::vector<std::wstring>& arguments);
  // The same, but Windows gets `commandLine` exactly as it stands.
  TestProcess(const std::wstring& commandLine, const std::vector<std::wstring>& arguments);
  ~TestProcess();
  TestProcess(const TestProcess&) = delete;
  TestProcess& operator=(const TestProcess&) = delete;

  bool Started() const;
  std::uint32_t ProcessId() const;
  // Waits for the end; the exit code (128 + the signal for a killed Linux process), or -1 on
  // time-out.
  int Wait(std::chrono::milliseconds timeout);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

// This test program's own executable and process id.
std::filesystem::path OwnExecutable();
std::uint32_t OwnProcessId();

// A pipe name that no other test, nor a test program running in parallel, uses: `prefix`,
// the process id, a counter and the current test's name, cut to fit a socket path.
std::wstring UniqueTestPipeName(const char* prefix);

}  // namespace pendrel_test
