// Keeps standard output for the response alone: the handler's own output (its standard
// output and error, and what Pendrel::Error prints) goes to pendrel's standard error, each
// line prefixed "handler: ". One file per platform (detail/HandlerOutput_posix.cpp,
// detail/HandlerOutput_win.cpp).
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include "handler/CHandler.h"

namespace PendrelCli {

// Linux: a pipe whose read end a thread of its own forwards, line by line, to `err`; the
// handler gets the write end through the library's child-output setting (EChildOutput::File
// on /dev/fd/N). Windows: the handler writes to pendrel's standard error directly
// (EChildOutput::HostStderr), without the prefix.
class CHandlerOutput {
 public:
  explicit CHandlerOutput(std::FILE* err);
  // Finish(0), if not called before.
  ~CHandlerOutput();
  CHandlerOutput(const CHandlerOutput&) = delete;
  CHandlerOutput& operator=(const CHandlerOutput&) = delete;

  // Sets `handler` up so that the handler its next Start starts writes here. Owner's thread.
  void Attach(CTolvane::CHandler& handler);
  // After that Start: lets go of pendrel's copy of the writing end, so that the output ends
  // when the handler's does. Owner's thread.
  void Started();
  // Waits up to `waitMs` for every writer to close, forwards what is left (a last line
  // without its line end gets one) and ends the forwarding. Owner's thread.
  void Finish(std::uint32_t waitMs);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace PendrelCli
