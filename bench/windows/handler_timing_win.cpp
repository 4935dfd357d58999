// pendrel_bench_handler_win: the handler figures of the Windows build, for a run under Wine
// (report only). Google Benchmark has no MinGW build in Debian, so this is a plain timing
// program; it prints one table.
//
//   round trip      CHandler::HandleRequest of a small request to the echo handler, against
//                   one 32768-byte message each way over a raw message-mode named pipe
//                   between two processes; p50 and p99 of many exchanges
//   transfer        a request with one 64 MiB file and the echo's answer, against the same
//                   numbers of bytes each way over the raw pipe in 32 KiB messages; the
//                   median of a few runs, in MB/s of file bytes both ways
//
// The raw pipe's far end is this program started again: `--child <pipe> <in> <out>` takes
// `in` bytes, answers `out` bytes, and does so until the pipe closes.
//
//   pendrel_bench_handler_win [--quick]     (--quick: few exchanges and a 1 MiB transfer)
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "BenchRecords.h"
#include "handler/CHandler.h"
#include "message/CRequest.h"
#include "message/CResponse.h"

namespace {

using Clock = std::chrono::steady_clock;
using PendrelBench::DataKind;
using PendrelBench::MakeFileData;
using PendrelBench::MakeRequest;
using PendrelBench::Percentile;

constexpr DWORD kMessageSize = 32768;

double Seconds(Clock::time_point start, Clock::time_point end) {
  return std::chrono::duration<double>(end - start).count();
}

std::wstring ProgramFolder() {
  wchar_t path[MAX_PATH];
  const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring folder(path, length);
  return folder.substr(0, folder.find_last_of(L"\\/") + 1);
}

std::wstring Widen(const std::string& text) { return std::wstring(text.begin(), text.end()); }

// What the echo handler answers to `request`, as text.
std::size_t AnswerSize(const Pendrel::CRequest& request) {
  Pendrel::CResponse answer(static_cast<Pendrel::EStatus>(0));
  answer.Data = request.InputData;
  answer.Parameters = request.RequestParams;
  return answer.ToJsonString().size();
}

// --- The raw pipe ---

bool WriteAll(HANDLE pipe, const char* data, std::size_t size) {
  for (std::size_t at = 0; at < size;) {
    const DWORD count = static_cast<DWORD>(std::min<std::size_t>(size - at, kMessageSize));
    DWORD written = 0;
    if (!WriteFile(pipe, data + at, count, &written, nullptr) || written != count) return false;
    at += count;
  }
  return true;
}

bool ReadAll(HANDLE pipe, char* data, std::size_t size) {
  for (std::size_t at = 0; at < size;) {
    DWORD read = 0;
    const DWORD count = static_cast<DWORD>(std::min<std::size_t>(size - at, kMessageSize));
    if (!ReadFile(pipe, data + at, count, &read, nullptr) || read == 0) return false;
    at += read;
  }
  return true;
}

int RunChild(const std::string& name, std::size_t in, std::size_t out) {
  const std::wstring path = L"\\\\.\\pipe\\" + Widen(name);
  WaitNamedPipeW(path.c_str(), 10000);
  HANDLE pipe = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                            0, nullptr);
  if (pipe == INVALID_HANDLE_VALUE) return 1;
  DWORD mode = PIPE_READMODE_MESSAGE;
  SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr);
  std::vector<char> buffer(std::max(in, out));
  while (ReadAll(pipe, buffer.data(), in) && WriteAll(pipe, buffer.data(), out)) {
  }
  CloseHandle(pipe);
  return 0;
}

// A message-mode pipe served here, with this program as the client that answers `out` bytes
// to every `in` bytes.
class RawPipe {
 public:
  bool Open(std::size_t in, std::size_t out) {
    const std::string name =
        "pendrel-bench-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++m_count);
    m_pipe = CreateNamedPipeW((L"\\\\.\\pipe\\" + Widen(name)).c_str(), PIPE_ACCESS_DUPLEX,
                              PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, 1,
                              kMessageSize * 2, kMessageSize * 2, 0, nullptr);
    if (m_pipe == INVALID_HANDLE_VALUE) return false;
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring commandLine = L"\"" + std::wstring(self) + L"\" --child " + Widen(name) + L" " +
                               Widen(std::to_string(in)) + L" " + Widen(std::to_string(out));
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &m_process)) {
      return false;
    }
    if (!ConnectNamedPipe(m_pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) return false;
    return true;
  }

  HANDLE Get() const { return m_pipe; }

  ~RawPipe() {
    if (m_pipe != INVALID_HANDLE_VALUE) CloseHandle(m_pipe);
    if (m_process.hProcess != nullptr) {
      WaitForSingleObject(m_process.hProcess, 10000);
      CloseHandle(m_process.hProcess);
      CloseHandle(m_process.hThread);
    }
  }

 private:
  static inline int m_count = 0;
  HANDLE m_pipe = INVALID_HANDLE_VALUE;
  PROCESS_INFORMATION m_process{};
};

// --- Figures ---

struct Latency {
  double p50 = 0;
  double p99 = 0;
  bool ok = false;
};

Latency RoundTripPendrel(int exchanges) {
  CTolvane::CHandler handler;
  Latency result;
  if (handler.Start(ProgramFolder() + L"pendrel_bench_echo_handler.exe", 0, L"") != CTolvane::Ok) {
    return result;
  }
  const Pendrel::CRequest request = MakeRequest(std::string(100, 'x'));
  std::vector<double> microseconds;
  for (int i = -20; i < exchanges; ++i) {  // the first twenty warm up
    Pendrel::CResponse response;
    const auto start = Clock::now();
    if (handler.HandleRequest(request, response) != CTolvane::Ok) return result;
    const auto end = Clock::now();
    if (i >= 0) microseconds.push_back(Seconds(start, end) * 1e6);
  }
  result = {Percentile(microseconds, 0.5), Percentile(microseconds, 0.99), true};
  return result;
}

Latency RoundTripRaw(int exchanges) {
  RawPipe pipe;
  Latency result;
  if (!pipe.Open(kMessageSize, kMessageSize)) return result;
  std::vector<char> message(kMessageSize, 'x');
  std::vector<double> microseconds;
  for (int i = -20; i < exchanges; ++i) {
    const auto start = Clock::now();
    if (!WriteAll(pipe.Get(), message.data(), kMessageSize) ||
        !ReadAll(pipe.Get(), message.data(), kMessageSize)) {
      return result;
    }
    const auto end = Clock::now();
    if (i >= 0) microseconds.push_back(Seconds(start, end) * 1e6);
  }
  result = {Percentile(microseconds, 0.5), Percentile(microseconds, 0.99), true};
  return result;
}

// Median MB/s (1e6 bytes) of file bytes both ways; 0 on failure.
double TransferPendrel(std::size_t size, int runs) {
  CTolvane::CHandler handler;
  if (handler.Start(ProgramFolder() + L"pendrel_bench_echo_handler.exe", 0, L"") != CTolvane::Ok) {
    return 0;
  }
  const Pendrel::CRequest request = MakeRequest(MakeFileData(DataKind::C, size));
  std::vector<double> speeds;
  for (int i = 0; i < runs; ++i) {
    Pendrel::CResponse response;
    const auto start = Clock::now();
    if (handler.HandleRequest(request, response) != CTolvane::Ok || response.Data.size() != 1 ||
        response.Data.front().Data.size() != size) {
      return 0;
    }
    speeds.push_back(2.0 * static_cast<double>(size) / Seconds(start, Clock::now()) / 1e6);
  }
  return Percentile(speeds, 0.5);
}

double TransferRaw(std::size_t size, int runs) {
  const Pendrel::CRequest request = MakeRequest(MakeFileData(DataKind::C, size));
  const std::string requestText = request.ToJsonString();
  const std::size_t answerSize = AnswerSize(request);
  RawPipe pipe;
  if (!pipe.Open(requestText.size(), answerSize)) return 0;
  std::vector<double> speeds;
  std::string received;
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    received.assign(answerSize, '\0');
    if (!WriteAll(pipe.Get(), requestText.data(), requestText.size()) ||
        !ReadAll(pipe.Get(), received.data(), answerSize)) {
      return 0;
    }
    speeds.push_back(2.0 * static_cast<double>(size) / Seconds(start, Clock::now()) / 1e6);
  }
  return Percentile(speeds, 0.5);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], "--child") == 0) {
    return RunChild(argv[2], std::strtoull(argv[3], nullptr, 10),
                    std::strtoull(argv[4], nullptr, 10));
  }
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  const int exchanges = quick ? 50 : 3000;
  const std::size_t size = quick ? std::size_t{1} << 20 : std::size_t{64} << 20;
  const int runs = quick ? 2 : 5;

  const Latency pendrel = RoundTripPendrel(exchanges);
  const Latency raw = RoundTripRaw(exchanges);
  const double pendrelSpeed = TransferPendrel(size, runs);
  const double rawSpeed = TransferRaw(size, runs);

  const std::string roundTrip = "round trip p50 (" + std::to_string(exchanges) + " exchanges)";
  const std::string transfer =
      std::to_string(size >> 20) + " MiB request + answer (median of " + std::to_string(runs) + ")";
  std::printf("%-42s | %-12s | %-21s | %s\n", "figure (Windows build under Wine)", "pendrel",
              "raw message-mode pipe", "ratio");
  std::printf("%s\n", std::string(92, '-').c_str());
  if (pendrel.ok && raw.ok) {
    std::printf("%-42s | %9.1f us | %18.1f us | %.2fx\n", roundTrip.c_str(), pendrel.p50, raw.p50,
                pendrel.p50 / raw.p50);
    std::printf("%-42s | %9.1f us | %18.1f us | %.2fx\n", "round trip p99", pendrel.p99, raw.p99,
                pendrel.p99 / raw.p99);
  } else {
    std::printf("round trip: FAILED (pendrel %s, raw %s)\n", pendrel.ok ? "ok" : "failed",
                raw.ok ? "ok" : "failed");
  }
  if (pendrelSpeed > 0 && rawSpeed > 0) {
    std::printf("%-42s | %7.0f MB/s | %16.0f MB/s | %.2fx\n", transfer.c_str(), pendrelSpeed,
                rawSpeed, pendrelSpeed / rawSpeed);
  } else {
    std::printf("transfer: FAILED (pendrel %.0f MB/s, raw %.0f MB/s)\n", pendrelSpeed, rawSpeed);
  }
  return pendrel.ok && raw.ok && pendrelSpeed > 0 && rawSpeed > 0 ? 0 : 1;
}
