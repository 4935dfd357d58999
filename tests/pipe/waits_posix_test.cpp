// Linux: a thread waiting on the channel sleeps until what it waits for comes. WaitForFailure
// (the kit's watcher) is not woken by messages going in and out, and WaitForMessage is not
// woken by messages being written; each such wake-up is a context switch on the path of every
// exchange.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "pipe/NamedPipeChannel.h"
#include "tests/pipe/PipeTestSupport.h"
#include "tests/support/ThreadSwitches.h"

namespace pendrel_test {
namespace {

using Pendrel::EWaitResult;
using Pendrel::NamedPipeChannel;

constexpr int kExchanges = 100;
// Far below one wake-up per exchange; a few allow for the scheduler's own moves.
constexpr long kAllowedSwitches = 10;

TEST(PipeChannelWaits, WaitForFailureSleepsWhileMessagesComeAndGo) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  std::promise<long> tid;
  auto watcher = std::async(std::launch::async, [&] {
    tid.set_value(CurrentThreadId());
    return server.WaitForFailure();
  });
  const long watcherId = tid.get_future().get();
  ASSERT_TRUE(WaitUntilAsleep(watcherId));
  const long before = VoluntarySwitches(watcherId);
  for (int index = 0; index < kExchanges; ++index) {
    ASSERT_TRUE(client.WriteMessage("request " + std::to_string(index)));
    std::string message;
    ASSERT_EQ(server.WaitForMessage(message, 10s), EWaitResult::Message);
    server.Post("answer " + std::to_string(index));
    std::string packet;
    ASSERT_TRUE(client.Read(packet)) << index;
  }
  const long after = VoluntarySwitches(watcherId);
  EXPECT_LT(after - before, kAllowedSwitches) << "the watcher woke for messages";
  server.InterruptWaits();
  ASSERT_EQ(watcher.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(watcher.get());
}

TEST(PipeChannelWaits, WaitForMessageSleepsWhileTheWorkerWrites) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  std::promise<long> tid;
  auto reader = std::async(std::launch::async, [&] {
    tid.set_value(CurrentThreadId());
    std::string message;
    const EWaitResult result = server.WaitForMessage(message, std::chrono::milliseconds::max());
    return result == EWaitResult::Message ? message : std::string("no message");
  });
  const long readerId = tid.get_future().get();
  ASSERT_TRUE(WaitUntilAsleep(readerId));
  const long before = VoluntarySwitches(readerId);
  // Three packets each: written by the worker, each message's end and flush reported.
  const std::string large = PatternBytes(3 * (32768 - 8));
  for (int index = 0; index < kExchanges / 2; ++index) {
    server.Post(large);
    server.RequestFlush();
    ASSERT_TRUE(server.WaitForFlush(10s)) << index;
    std::string packet;
    for (int part = 0; part < 3; ++part) ASSERT_TRUE(client.Read(packet)) << index;
  }
  const long after = VoluntarySwitches(readerId);
  EXPECT_LT(after - before, kAllowedSwitches) << "the reader woke for written messages";
  ASSERT_TRUE(client.WriteMessage("the answer"));
  ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(reader.get(), "the answer");
}

}  // namespace
}  // namespace pendrel_test
