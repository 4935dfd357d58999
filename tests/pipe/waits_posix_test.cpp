// Linux: a thread waiting on the channel sleeps until what it waits for comes. WaitForFailure
// (the kit's watcher) is not woken by messages going in and out, WaitForMessage is not woken
// by messages being written, and a caller waiting for its answer reads it from the pipe itself
// rather than having the worker woken to read it; each such wake-up is a context switch on
// the path of every exchange.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <type_traits>  // std::invoke_result_t
#include <utility>
#include <vector>

#include "pipe/NamedPipeChannel.h"
#include "tests/pipe/PipeTestSupport.h"
#include "tests/support/ThreadSwitches.h"
#include "tests/support/WaitFor.h"

namespace pendrel_test {
namespace {

using Pendrel::EWaitResult;
using Pendrel::NamedPipeChannel;

constexpr int kExchanges = 100;
// Far below one wake-up per exchange; a few allow for the scheduler's own moves.
constexpr long kAllowedSwitches = 10;

// Runs `wait` on a thread of its own and returns once that thread sleeps in it, with the
// thread's id in `tid` (0 when it did not go to sleep within 10 s).
template <typename Wait>
std::future<std::invoke_result_t<Wait>> StartAsleepIn(Wait wait, long& tid) {
  std::promise<long> started;
  std::future<long> id = started.get_future();
  auto result = std::async(std::launch::async, [started = std::move(started), wait]() mutable {
    started.set_value(CurrentThreadId());
    return wait();
  });
  tid = id.get();
  if (!WaitUntilAsleep(tid)) tid = 0;
  return result;
}

// What a WaitForMessage on a thread of its own found.
struct Waited {
  EWaitResult result = EWaitResult::TimedOut;
  std::string message;
};

// Starts a thread that waits for one message on `server` for up to `timeout` and returns once
// it sleeps (`tid` as for StartAsleepIn).
std::future<Waited> StartWaitingForMessage(NamedPipeChannel& server,
                                           std::chrono::milliseconds timeout, long& tid) {
  return StartAsleepIn(
      [&server, timeout] {
        Waited waited;
        waited.result = server.WaitForMessage(waited.message, timeout);
        return waited;
      },
      tid);
}

// A server end opened with a raw client, with the one thread the channel started (its worker)
// and that thread's voluntary switches when it was found.
struct WatchedServer {
  NamedPipeChannel server;
  RawClient client;
  std::vector<long> worker;
  long workerSwitchesAtOpen = 0;

  // The worker's voluntary switches since Open.
  long WorkerWakeUps() const { return VoluntarySwitchesOf(worker) - workerSwitchesAtOpen; }
};

// Opens `watched` and finds its worker; false when the opening failed or the channel did not
// start exactly one thread.
bool OpenWatched(WatchedServer& watched) {
  const std::vector<long> before = ThreadIds();
  if (!OpenWithRawClient(watched.server, watched.client, UniquePipeName())) return false;
  watched.worker = ThreadsStartedSince(before);
  watched.workerSwitchesAtOpen = VoluntarySwitchesOf(watched.worker);
  return watched.worker.size() == 1;
}

TEST(PipeChannelWaits, WaitForFailureSleepsWhileMessagesComeAndGo) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  long watcherId = 0;
  auto watcher = StartAsleepIn([&server] { return server.WaitForFailure(); }, watcherId);
  if (watcherId == 0) {
    server.InterruptWaits();
    FAIL() << "the watcher did not go to sleep";
  }
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
  long readerId = 0;
  auto reader = StartWaitingForMessage(server, std::chrono::milliseconds::max(), readerId);
  if (readerId == 0) {
    server.InterruptWaits();
    FAIL() << "the reader did not go to sleep";
  }
  const long before = VoluntarySwitches(readerId);
  // Twenty packets each, more than the socket takes at once: the posting thread writes the
  // first ones, the worker the rest as the client reads them; each message's end and flush
  // reported.
  constexpr int kPackets = 20;
  const std::string large = PatternBytes(kPackets * (32768 - 8));
  for (int index = 0; index < kExchanges / 2; ++index) {
    server.Post(large);
    std::string packet;
    for (int part = 0; part < kPackets; ++part) ASSERT_TRUE(client.Read(packet)) << index;
    server.RequestFlush();
    ASSERT_TRUE(server.WaitForFlush(10s)) << index;
  }
  const long after = VoluntarySwitches(readerId);
  EXPECT_LT(after - before, kAllowedSwitches) << "the reader woke for written messages";
  ASSERT_TRUE(client.WriteMessage("the answer"));
  ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(reader.get().message, "the answer");
}

TEST(PipeChannelWaits, ACallerReadsItsMessageWithoutWakingTheWorker) {
  WatchedServer watched;
  ASSERT_TRUE(OpenWatched(watched));
  for (int index = 0; index < kExchanges; ++index) {
    long readerId = 0;
    auto reader = StartWaitingForMessage(watched.server, 10s, readerId);
    ASSERT_NE(readerId, 0) << index;
    const std::string sent = "message " + std::to_string(index);
    ASSERT_TRUE(watched.client.WriteMessage(sent));
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready) << index;
    ASSERT_EQ(reader.get().message, sent);
  }
  EXPECT_LT(watched.WorkerWakeUps(), kAllowedSwitches) << "the worker woke to read the messages";
  // A message that comes while nobody waits is read by the worker, as before.
  ASSERT_TRUE(watched.client.WriteMessage("unasked"));
  ASSERT_TRUE(WaitFor([&watched] { return watched.server.HasMessage(); }, 10s));
}

// A message of several packets posted while the channel is idle is written by the posting
// thread as far as the socket takes it: the worker sleeps.
TEST(PipeChannelWaits, APostedMessageThatTheSocketTakesIsWrittenWithoutWakingTheWorker) {
  WatchedServer watched;
  ASSERT_TRUE(OpenWatched(watched));
  const std::string message = PatternBytes(3 * (32768 - 8));
  for (int index = 0; index < kExchanges; ++index) {
    watched.server.Post(message);
    std::string packet;
    for (int part = 0; part < 3; ++part) ASSERT_TRUE(watched.client.Read(packet)) << index;
    EXPECT_EQ(packet.substr(8), message.substr(2 * (32768 - 8))) << index;
  }
  EXPECT_LT(watched.WorkerWakeUps(), kAllowedSwitches) << "the worker woke to write the messages";
  watched.server.RequestFlush();
  EXPECT_TRUE(watched.server.WaitForFlush(10s));
  EXPECT_FALSE(watched.server.HasError());
}

// Ask takes the reading before the question goes out: however soon the answer comes, the
// asking thread reads it and the worker sleeps.
TEST(PipeChannelWaits, AskReadsAnAnswerThatComesAtOnceWithoutWakingTheWorker) {
  EchoChild child(UniquePipeName());
  const std::vector<long> before = ThreadIds();
  NamedPipeChannel server;
  ASSERT_TRUE(child.Open(server));
  const std::vector<long> worker = ThreadsStartedSince(before);
  ASSERT_EQ(worker.size(), 1u);
  const long workerBefore = VoluntarySwitchesOf(worker);
  for (int index = 0; index < kExchanges; ++index) {
    const std::string question = "question " + std::to_string(index);
    std::string answer;
    ASSERT_EQ(server.Ask(question, answer, 10s), EWaitResult::Message) << index;
    ASSERT_EQ(answer, question);
  }
  EXPECT_LT(VoluntarySwitchesOf(worker) - workerBefore, kAllowedSwitches)
      << "the worker woke to read the answers";
  server.Close();
  EXPECT_EQ(child.Wait(20s), 0);
}

// Close while a caller reads the pipe: the worker has the caller step back before the pipe
// closes, so the caller sees no failure and waits on until interrupted.
TEST(PipeChannelWaits, CloseWhileACallerReadsThePipe) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  long readerId = 0;
  auto reader = StartWaitingForMessage(server, std::chrono::milliseconds::max(), readerId);
  EXPECT_NE(readerId, 0) << "the reader did not go to sleep";
  server.Close();
  EXPECT_FALSE(server.HasError());
  server.InterruptWaits();
  ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(reader.get().result, EWaitResult::Interrupted);
  EXPECT_TRUE(client.WaitForFailure());
}

}  // namespace
}  // namespace pendrel_test
