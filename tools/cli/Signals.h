// What pendrel does when it is asked to end (SIGINT, SIGTERM, SIGHUP): it must not leave the
// handler running nor the pipe's files behind, so the signal is not allowed to end the
// process at once. One file per platform (detail/Signals_posix.cpp, detail/Signals_win.cpp).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace PendrelCli {

// Watches for the signals that ask pendrel to end, on a thread of its own.
//
// Linux: blocks SIGINT, SIGTERM and SIGHUP in the calling thread, so make it in main before
// any other thread starts (threads inherit the mask; the library gives its handlers an empty
// mask). On the first signal the watcher calls `onSignal` with its number; that returns the
// process id of the handler to stop (0: none; it may also end pendrel itself when it holds
// no handler). The watcher asks that process to end with SIGTERM and kills it
// `gracePeriodMs` later if it has not ended; the thread that drives the handler then sees its
// exchange fail, sees Received() and stops the handler, which removes the pipe's files.
// Later signals are taken and ignored: pendrel is ending already.
//
// Windows: nothing is watched. A console interrupt ends pendrel; the handler ends with it
// through its job object, and a named pipe leaves no file behind.
class CStopSignals {
 public:
  CStopSignals(std::function<std::uint32_t(int signal)> onSignal, std::uint32_t gracePeriodMs);
  // Stops and joins the watcher (the kill of a handler that ignored SIGTERM is not waited
  // for: pendrel stops the handler itself). Owner's thread.
  ~CStopSignals();
  CStopSignals(const CStopSignals&) = delete;
  CStopSignals& operator=(const CStopSignals&) = delete;

  // The first signal received; 0 while none was. Any thread.
  int Received() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

// "SIGABRT" for a signal number; "signal N" for one without a name here.
std::string SignalName(int signal);

}  // namespace PendrelCli
