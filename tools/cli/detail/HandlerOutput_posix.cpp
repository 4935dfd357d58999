// Linux: the handler writes into a pipe that a thread of pendrel reads; every line it writes
// reaches pendrel's standard error as one write, after "handler: ", so that it neither mixes
// into the response nor cuts pendrel's own lines in two.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "tools/cli/HandlerOutput.h"
#include "tools/cli/Text.h"

namespace PendrelCli {
namespace {

constexpr char kPrefix[] = "handler: ";
// A line longer than this is passed on in pieces of this size, each prefixed.
constexpr std::size_t kLongestLine = 64 * 1024;

void CloseFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

struct CHandlerOutput::Impl {
  std::FILE* err = nullptr;
  int readFd = -1;
  int writeFd = -1;
  int stopRead = -1;  // the ends of a pipe that tells the reader to finish
  int stopWrite = -1;
  std::atomic<int> finishWaitMs{0};  // set before stopWrite closes
  std::thread reader;
  std::string line;

  void Emit(std::string_view piece) {
    const std::string text = kPrefix + std::string(piece) + "\n";
    std::fwrite(text.data(), 1, text.size(), err);
    std::fflush(err);
  }

  void Take(const char* data, std::size_t size) {
    line.append(data, size);
    std::size_t start = 0;
    for (std::size_t end; (end = line.find('\n', start)) != std::string::npos; start = end + 1) {
      Emit(std::string_view(line).substr(start, end - start));
    }
    line.erase(0, start);
    while (line.size() >= kLongestLine) {
      Emit(std::string_view(line).substr(0, kLongestLine));
      line.erase(0, kLongestLine);
    }
  }

  // Reads until every writer has closed; once told to finish, for finishWait more at most.
  void Read() {
    char buffer[4096];
    bool finishing = false;
    auto deadline = std::chrono::steady_clock::now();
    for (;;) {
      pollfd fds[2] = {{readFd, POLLIN, 0}, {stopRead, POLLIN, 0}};
      int timeoutMs = -1;
      if (finishing) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        timeoutMs = static_cast<int>(left.count());
      }
      const int ready = ::poll(fds, finishing ? 1 : 2, timeoutMs);
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) break;
      if (!finishing && (fds[1].revents & (POLLIN | POLLHUP))) {
        finishing = true;
        deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(finishWaitMs.load());
      }
      if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t got = ::read(readFd, buffer, sizeof buffer);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      Take(buffer, static_cast<std::size_t>(got));
    }
    if (!line.empty()) Emit(line);
    line.clear();
  }
};

CHandlerOutput::CHandlerOutput(std::FILE* err) : m_impl(std::make_unique<Impl>()) {
  m_impl->err = err;
}

CHandlerOutput::~CHandlerOutput() { Finish(0); }

void CHandlerOutput::Attach(CTolvane::CHandler& handler) {
  Impl& impl = *m_impl;
  int ends[2];
  int stops[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    // Without a pipe the handler's output still stays off standard output, unprefixed.
    handler.ChildOutput = CTolvane::EChildOutput::HostStderr;
    return;
  }
  if (::pipe2(stops, O_CLOEXEC) != 0) {
    ::close(ends[0]);
    ::close(ends[1]);
    handler.ChildOutput = CTolvane::EChildOutput::HostStderr;
    return;
  }
  impl.readFd = ends[0];
  impl.writeFd = ends[1];
  impl.stopRead = stops[0];
  impl.stopWrite = stops[1];
  // The library opens the file for the handler: /dev/fd/N opens the pipe's writing end anew.
  handler.ChildOutput = CTolvane::EChildOutput::File;
  handler.ChildOutputFile = WideFromUtf8("/dev/fd/" + std::to_string(impl.writeFd));
  impl.reader = std::thread([&impl] { impl.Read(); });
}

void CHandlerOutput::Started() { CloseFd(m_impl->writeFd); }

void CHandlerOutput::Finish(std::uint32_t waitMs) {
  Impl& impl = *m_impl;
  CloseFd(impl.writeFd);
  if (impl.reader.joinable()) {
    impl.finishWaitMs = static_cast<int>(waitMs);
    CloseFd(impl.stopWrite);  // the reader sees the hang-up
    impl.reader.join();
  }
  CloseFd(impl.readFd);
  CloseFd(impl.stopRead);
  CloseFd(impl.stopWrite);
}

}  // namespace PendrelCli
