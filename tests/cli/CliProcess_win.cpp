#include <windows.h>

#include <fstream>
#include <iterator>

#include "tests/cli/CliProcess.h"
#include "tests/support/TempDir.h"

namespace pendrel_test {
namespace {

std::wstring Wide(const std::string& text) {
  if (text.empty()) return L"";
  std::wstring wide(text.size(), L'\0');
  wide.resize(::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                    wide.data(), static_cast<int>(wide.size())));
  return wide;
}

// One argument as the C runtime's splitting reads it back: in double quotes when it holds a
// blank or a quote, with the backslashes before a quote doubled.
std::wstring Quoted(const std::wstring& argument) {
  if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
    return argument;
  }
  std::wstring quoted = L"\"";
  std::size_t backslashes = 0;
  for (wchar_t c : argument) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
    backslashes = 0;
    quoted += c;
  }
  quoted.append(backslashes * 2, L'\\');
  return quoted + L"\"";
}

class CHandle {
 public:
  explicit CHandle(HANDLE handle) : m_handle(handle) {}
  ~CHandle() {
    if (m_handle != INVALID_HANDLE_VALUE && m_handle != nullptr) ::CloseHandle(m_handle);
  }
  CHandle(const CHandle&) = delete;
  CHandle& operator=(const CHandle&) = delete;
  HANDLE Get() const { return m_handle; }

 private:
  HANDLE m_handle;
};

// An inheritable handle on `file`, for the child's standard stream.
HANDLE OpenForChild(const std::filesystem::path& file, bool write) {
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  return ::CreateFileW(file.wstring().c_str(), write ? GENERIC_WRITE : GENERIC_READ,
                       FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                       write ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

std::string ReadAll(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

CProgramRun RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                       const std::string& input) {
  TempDir streams;
  const std::filesystem::path inFile = streams.Write("stdin", input);
  const std::filesystem::path outFile = streams.path() / "stdout";
  const std::filesystem::path errFile = streams.path() / "stderr";
  CProgramRun run;
  {
    const CHandle in(OpenForChild(inFile, false));
    const CHandle out(OpenForChild(outFile, true));
    const CHandle err(OpenForChild(errFile, true));
    std::wstring commandLine = Quoted(Wide(program));
    for (const std::string& argument : arguments) commandLine += L" " + Quoted(Wide(argument));

    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in.Get();
    startup.hStdOutput = out.Get();
    startup.hStdError = err.Get();
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                          &startup, &info)) {
      return run;
    }
    const CHandle process(info.hProcess);
    const CHandle thread(info.hThread);
    DWORD code = static_cast<DWORD>(-1);
    if (::WaitForSingleObject(info.hProcess, 90000) == WAIT_OBJECT_0) {
      ::GetExitCodeProcess(info.hProcess, &code);
    } else {
      ::TerminateProcess(info.hProcess, code);
      ::WaitForSingleObject(info.hProcess, INFINITE);
    }
    run.ExitCode = static_cast<int>(code);
  }
  run.Out = ReadAll(outFile);
  run.Err = ReadAll(errFile);
  return run;
}

}  // namespace pendrel_test
