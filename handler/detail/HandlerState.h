// What a CHandler holds behind its public face, shared by the files that implement it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "base/Deadline.h"
#include "handler/CHandler.h"
#include "handler/detail/ChildProcess.h"
#include "pipe/NamedPipeChannel.h"

namespace CTolvane {
namespace detail {

// The failure of an exchange, shared by every copy of the handler that made it.
struct SharedFailure {
  EErrorCode code = Ok;
  Pendrel::CChannelFailure channelFailure;
  std::wstring text;
};

// The pipe to one handler process and what goes with it; shared by a CHandler and its
// copies. The last of them closes the pipe and hands the process to supervision.
struct Connection {
  Pendrel::NamedPipeChannel channel;
  // Keeps one exchange in flight, so answers match requests by order alone.
  std::mutex requestLock;
  // Set once Start has seen the handler connect: exchanges need a started handler.
  std::atomic<bool> started{false};
  // CHandler::StopGracePeriodMs of the owner that let go last.
  std::atomic<std::uint32_t> gracePeriodMs{5000};
  // Set once, under requestLock, by the first exchange that fails on any copy; no exchange
  // of any copy is sent afterwards, so none reads an answer of the failed one.
  std::atomic<bool> failed{false};
  mutable std::mutex failureMutex;
  SharedFailure failure;  // guarded by failureMutex
  // Declared last, so that its exit watch ends before the channel it notifies goes.
  ChildProcess child;

  Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() {
    // After a failed exchange nothing still queued is owed to the handler: the pipe closes at
    // once, so a handler that stopped reading cannot hold the closing thread (a pool's
    // retirer, say) for the channel's time limit before its grace period even begins.
    if (failed) channel.SetTimeLimitMs(0);
    channel.Close();
    child.Release(std::chrono::milliseconds(gracePeriodMs.load()));
  }

  void Fail(SharedFailure what) {
    const std::lock_guard<std::mutex> lock(failureMutex);
    if (failed) return;
    failure = std::move(what);
    failed = true;
  }
  SharedFailure Failure() const {
    const std::lock_guard<std::mutex> lock(failureMutex);
    return failure;
  }
};

}  // namespace detail

struct CHandler::State {
  std::atomic<std::int32_t> lastError{Ok};
  std::shared_ptr<detail::Connection> connection;
  std::atomic<std::int32_t> modeValue{0};
  std::atomic<std::uint64_t> startTicks{Pendrel::base::MonotonicMs()};
  std::atomic<std::uint32_t> startError{0};  // GetStartErrorNumber

  mutable std::mutex textMutex;  // guards the four fields below
  std::wstring sessionIdText;
  std::wstring responseErrorMessage;
  Pendrel::CChannelFailure channelFailure;  // what responseErrorMessage reports
  std::wstring logFolder;                   // HandlerSettings::logFolder, taken by Start

  State() = default;
  State(const State& other)
      : lastError(other.lastError.load()),
        connection(other.connection),
        modeValue(other.modeValue.load()),
        startTicks(other.startTicks.load()),
        startError(other.startError.load()) {
    const std::lock_guard<std::mutex> lock(other.textMutex);
    sessionIdText = other.sessionIdText;
    responseErrorMessage = other.responseErrorMessage;
    channelFailure = other.channelFailure;
    logFolder = other.logFolder;
  }

  void Fail(EErrorCode code) { lastError = code; }
  // Lets go of the handler: the pipe closes and the process is supervised once no copy holds
  // it any more, with this owner's grace period if it is the last.
  void LetGo(std::uint32_t gracePeriodMs) {
    if (!connection) return;
    connection->gracePeriodMs = gracePeriodMs;
    connection.reset();
  }
  void SetLogFolder(std::wstring folder) {
    const std::lock_guard<std::mutex> lock(textMutex);
    logFolder = std::move(folder);
  }
  // Records a failure of the pipe with the text it is reported by.
  void SetChannelFailure(const Pendrel::CChannelFailure& failure, std::wstring text) {
    const std::lock_guard<std::mutex> lock(textMutex);
    channelFailure = failure;
    responseErrorMessage = std::move(text);
  }
  void SetChannelFailure(const Pendrel::CChannelFailure& failure) {
    SetChannelFailure(failure, Pendrel::NamedPipeChannel::TextOf(failure));
  }
  // Fails this copy and every other copy of the handler with `code`.
  void FailShared(detail::Connection& connection, EErrorCode code) {
    detail::SharedFailure what;
    what.code = code;
    {
      const std::lock_guard<std::mutex> lock(textMutex);
      what.channelFailure = channelFailure;
      what.text = responseErrorMessage;
    }
    Fail(code);
    connection.Fail(std::move(what));
  }
  // Takes on the failure another copy's exchange left on `connection`, if this copy has
  // not failed on its own.
  void AdoptSharedFailure(const detail::Connection& connection) {
    if (!connection.failed || lastError != Ok) return;
    detail::SharedFailure what = connection.Failure();
    SetChannelFailure(what.channelFailure, std::move(what.text));
    Fail(what.code);
  }
};

}  // namespace CTolvane
