// What the reliability tests share: a started fault handler with the files it reports
// through, the process checks (gone, not a zombie), the error texts the channel reports, and
// a count of the bytes this test program holds on the heap.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "handler/CHandler.h"
#include "tests/support/TempDir.h"

namespace pendrel_reliability {

using namespace std::chrono_literals;

// The reader found the peer gone.
Pendrel::CChannelFailure PeerGone();
// A packet was refused (13 a lying header, 8 over the cap).
Pendrel::CChannelFailure RefusedPacket(std::uint32_t code);
// A message stopped with `remaining` packets still announced.
Pendrel::CChannelFailure PacketTimedOut(std::uint32_t remaining);
// No failure.
Pendrel::CChannelFailure NoFailure();

// A CHandler started on the fault handler with `options`, which writes its process id, a
// record of the messages it received and of the answers it sent into a folder of its own.
class FaultHost {
 public:
  explicit FaultHost(const std::wstring& options = L"");

  CTolvane::EErrorCode StartResult() const { return m_result; }
  // The handler's process id, once it has written it (0 if it never did within 5 s).
  std::uint32_t ProcessId();
  // How many messages the handler has recorded so far.
  std::size_t Received() const;
  // Whether the handler has written at least `count` answers whole to the pipe within
  // `timeout`.
  bool WaitForAnswersSent(std::size_t count, std::chrono::milliseconds timeout) const;
  // The handler's error text, as UTF-8 for test messages.
  std::string ErrorMessage();
  // The handler's failure code; checks that ErrorMessage is the text made of it.
  Pendrel::CChannelFailure Failure();

  CTolvane::CHandler handler;

 private:
  pendrel_test::TempDir m_dir;
  CTolvane::EErrorCode m_result = CTolvane::Ok;
  std::uint32_t m_pid = 0;
};

// A request whose one input file holds `data`; its Command names it.
Pendrel::CRequest FileRequest(const std::wstring& command, std::string data);

// Sends `data` through `handler` and checks the echo: Ok, the file back unchanged, named by
// the checksum of what the handler received and by the command. Empty on success, else what
// went wrong.
std::string EchoProblem(CTolvane::CHandler& handler, const std::wstring& command,
                        const std::string& data);

// Whether process `pid` has ended and left nothing behind (on Linux: been collected, so no
// zombie) within `timeout`.
bool ProcessGoneWithin(std::uint32_t pid, std::chrono::milliseconds timeout);

// Whether process `pid` (not necessarily a child of this one) has ended within `timeout`,
// waiting on the system's notice of its end (a pidfd, the process handle); a zombie has
// ended. True when there is no such process.
bool ProcessEndedWithin(std::uint32_t pid, std::chrono::milliseconds timeout);

// How a handler that the library killed ended: SIGKILL on Linux, exit code 1 on Windows.
CTolvane::CHandlerExit KilledByTheLibrary();

// Kills process `pid` at once (SIGKILL, TerminateProcess); whether the system took it.
bool KillProcess(std::uint32_t pid);

// Whether this build counts the heap (not under ThreadSanitizer, whose runtime owns operator
// new); where it does not, the three functions below give 0.
bool HeapIsCounted();
// Bytes this test program holds through operator new right now (every allocation of the
// library and of the tests in this process; not the C library's malloc of others).
std::int64_t HeapBytesInUse();
// The most HeapBytesInUse() has been since the last ResetHeapPeak() (or the start).
std::int64_t HeapPeakBytes();
void ResetHeapPeak();
// The process's resident memory in bytes, for reports (0 where unknown).
std::uint64_t ResidentBytes();

}  // namespace pendrel_reliability
