// Bounded waits for what no event announces to a test: a file another process writes, a
// process's end seen from outside. Every wait gives up at its time-out.
#pragma once

#include <chrono>
#include <filesystem>
#include <thread>

namespace pendrel_test {

// Checks `condition` every `interval` until it holds or `timeout` passes; whether it held
// (checked once more at the end).
template <typename Condition>
bool WaitFor(Condition condition, std::chrono::milliseconds timeout,
             std::chrono::milliseconds interval = std::chrono::milliseconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(interval);
  }
  return true;
}

// Whether `file` exists within `timeout`.
bool WaitForFile(const std::filesystem::path& file, std::chrono::milliseconds timeout);

}  // namespace pendrel_test
