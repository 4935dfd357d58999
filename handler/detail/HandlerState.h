// What a CHandler holds behind its public face, shared by the files that implement it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "base/Deadline.h"
#include "handler/CHandler.h"
#include "handler/detail/ChildProcess.h"
#include "pipe/NamedPipeChannel.h"

namespace CTolvane {
namespace detail {

// The pipe to one handler process and what goes with it; shared by a CHandler and its
// copies, and closed by the last of them.
struct Connection {
  Pendrel::NamedPipeChannel channel;
  // Keeps one exchange in flight, so answers match requests by order alone.
  std::mutex requestLock;
  // Set once Start has seen the handler connect: exchanges need a started handler.
  std::atomic<bool> started{false};
  // Declared last, so that its exit watch ends before the channel it notifies goes.
  ChildProcess child;
};

}  // namespace detail

struct CHandler::State {
  std::atomic<std::int32_t> lastError{Ok};
  std::shared_ptr<detail::Connection> connection;
  std::atomic<std::int32_t> modeValue{0};
  std::atomic<std::uint64_t> startTicks{Pendrel::base::MonotonicMs()};

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
        startTicks(other.startTicks.load()) {
    const std::lock_guard<std::mutex> lock(other.textMutex);
    sessionIdText = other.sessionIdText;
    responseErrorMessage = other.responseErrorMessage;
    channelFailure = other.channelFailure;
    logFolder = other.logFolder;
  }

  void Fail(EErrorCode code) { lastError = code; }
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
};

}  // namespace CTolvane
