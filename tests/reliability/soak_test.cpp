// Many handlers, many threads, many requests of random sizes: every answer matches its
// request (the handler names each file by the checksum of the bytes it received and sends
// them back), nothing is lost, the whole run keeps to its time limit, and the memory the
// host holds is the same afterwards as before.
//
// CI runs a small soak; scripts/soak.sh runs the full one (8 handlers × 4 threads × 2,000
// requests of 0 B to 4 MB) by setting, all optional:
//   PENDREL_SOAK_HANDLERS, PENDREL_SOAK_THREADS (per handler), PENDREL_SOAK_REQUESTS (per
//   thread), PENDREL_SOAK_MAX_BYTES (largest request file), PENDREL_SOAK_TIME_LIMIT_S.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/reliability/ReliabilitySupport.h"

namespace pendrel_reliability {
namespace {

using CTolvane::Ok;
using Clock = std::chrono::steady_clock;

std::uint64_t Setting(const char* name, std::uint64_t fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return fallback;
  return std::strtoull(text, nullptr, 10);
}

// Sizes spread evenly over the orders of magnitude from 0 to `max`, so that empty, small,
// packet-sized and multi-megabyte messages all come up often.
std::size_t RandomSize(std::mt19937_64& random, std::uint64_t max) {
  const double exponent =
      std::uniform_real_distribution<double>(0, std::log2(double(max) + 1))(random);
  return static_cast<std::size_t>(std::min<double>(std::exp2(exponent) - 1, double(max)));
}

std::string RandomBytes(std::mt19937_64& random, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; i += 8) {
    std::uint64_t word = random();
    for (std::size_t k = i; k < size && k < i + 8; ++k, word >>= 8) {
      bytes[k] = static_cast<char>(word & 0xFF);
    }
  }
  return bytes;
}

TEST(Soak, EveryAnswerMatchesItsRequestAndMemoryStaysFlat) {
  const auto handlerCount = static_cast<int>(Setting("PENDREL_SOAK_HANDLERS", 2));
  const auto threadCount = static_cast<int>(Setting("PENDREL_SOAK_THREADS", 2));
  const auto requestCount = static_cast<int>(Setting("PENDREL_SOAK_REQUESTS", 25));
  const std::uint64_t maxBytes = Setting("PENDREL_SOAK_MAX_BYTES", 1 << 20);
  const std::chrono::seconds timeLimit(Setting("PENDREL_SOAK_TIME_LIMIT_S", 120));

  std::vector<std::unique_ptr<FaultHost>> hosts;
  std::vector<std::uint32_t> pids;
  for (int h = 0; h < handlerCount; ++h) {
    // The handler ends itself after a minute unless told otherwise.
    hosts.push_back(std::make_unique<FaultHost>(L"--lifetime-ms " +
                                                std::to_wstring((timeLimit.count() + 60) * 1000)));
    ASSERT_EQ(hosts.back()->StartResult(), Ok) << hosts.back()->ErrorMessage();
    pids.push_back(hosts.back()->ProcessId());
    // One request of the largest size first, so that every buffer has grown as far as the
    // soak will take it before memory is measured.
    std::mt19937_64 random(h);
    ASSERT_EQ(EchoProblem(hosts.back()->handler, L"warm-up", RandomBytes(random, maxBytes)), "");
  }

  const std::int64_t heapBefore = HeapBytesInUse();
  const std::uint64_t residentBefore = ResidentBytes();
  const auto start = Clock::now();
  const auto deadline = start + timeLimit;
  std::atomic<int> answered{0};
  std::atomic<std::uint64_t> bytes{0};
  std::mutex problemMutex;
  std::string firstProblem;  // guarded by problemMutex
  std::vector<std::thread> threads;
  for (int h = 0; h < handlerCount; ++h) {
    for (int t = 0; t < threadCount; ++t) {
      threads.emplace_back([&, h, t] {
        std::mt19937_64 random((std::uint64_t(h) << 32) | std::uint64_t(t + 1));
        for (int i = 0; i < requestCount; ++i) {
          std::string problem;
          if (Clock::now() > deadline) {
            problem = "the time limit passed";
          } else {
            const std::wstring command = L"soak-" + std::to_wstring(h) + L"-" + std::to_wstring(t) +
                                         L"-" + std::to_wstring(i);
            const std::string data = RandomBytes(random, RandomSize(random, maxBytes));
            problem = EchoProblem(hosts[h]->handler, command, data);
            bytes += data.size();
          }
          if (!problem.empty()) {
            const std::lock_guard<std::mutex> lock(problemMutex);
            if (firstProblem.empty()) {
              firstProblem = "handler " + std::to_string(h) + ", thread " + std::to_string(t) +
                             ", request " + std::to_string(i) + ": " + problem;
            }
            return;
          }
          ++answered;
        }
      });
    }
  }
  for (std::thread& thread : threads) thread.join();
  const auto took = std::chrono::duration<double>(Clock::now() - start).count();
  const std::int64_t heapAfter = HeapBytesInUse();
  const std::uint64_t residentAfter = ResidentBytes();

  EXPECT_EQ(firstProblem, "");
  EXPECT_EQ(answered.load(), handlerCount * threadCount * requestCount) << "answers lost";
  // Every queue, buffer and record of the exchanges is back where it was.
  if (HeapIsCounted()) {
    EXPECT_LT(std::llabs(heapAfter - heapBefore), 64 * 1024)
        << "heap before " << heapBefore << " bytes, after " << heapAfter;
  }
  std::printf(
      "soak: %d handlers x %d threads x %d requests, %.1f MB each way in %.1f s "
      "(%.1f MB/s); heap %lld -> %lld bytes; resident %.1f -> %.1f MB\n",
      handlerCount, threadCount, requestCount, double(bytes) / 1e6, took,
      double(bytes) / 1e6 / took, static_cast<long long>(heapBefore),
      static_cast<long long>(heapAfter), double(residentBefore) / 1e6, double(residentAfter) / 1e6);

  hosts.clear();
  for (const std::uint32_t pid : pids) EXPECT_TRUE(ProcessGoneWithin(pid, 10s)) << pid;
}

}  // namespace
}  // namespace pendrel_reliability
