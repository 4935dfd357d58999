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
  // Made by a successful Start; keeps one exchange in flight, so answers match requests by
  // order alone.
  std::unique_ptr<std::mutex> requestLock;
  // Declared last, so that its exit watch ends before the channel it notifies goes.
  ChildProcess child;
};

// Milliseconds of a clock that only goes forward.
inline std::uint64_t NowTicks() { return Pendrel::base::MonotonicMs(); }

}  // namespace detail

struct CHandler::State {
  std::atomic<std::int32_t> lastError{Ok};
  std::shared_ptr<detail::Connection> connection;
  std::atomic<std::int32_t> ModeValue{0};
  std::atomic<std::uint64_t> StartTicks{detail::NowTicks()};

  mutable std::mutex textMutex;  // guards the two texts below
  std::wstring SessionIdText;
  std::wstring ResponseErrorMessage;

  State() = default;
  State(const State& other)
      : lastError(other.lastError.load()),
        connection(other.connection),
        ModeValue(other.ModeValue.load()),
        StartTicks(other.StartTicks.load()) {
    const std::lock_guard<std::mutex> lock(other.textMutex);
    SessionIdText = other.SessionIdText;
    ResponseErrorMessage = other.ResponseErrorMessage;
  }

  void Fail(EErrorCode code) { lastError = code; }
  void SetErrorMessage(std::wstring text) {
    const std::lock_guard<std::mutex> lock(textMutex);
    ResponseErrorMessage = std::move(text);
  }
};

}  // namespace CTolvane
