// The channel between two processes, as the library meets a handler: this program opens
// the server end and a copy of itself in child mode connects and echoes every message.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "json/TextConversion.h"
#include "pipe/NamedPipeChannel.h"
#include "tests/pipe/PipeTestSupport.h"
#include "tests/support/TempDir.h"

namespace {

using Pendrel::EWaitResult;
using Pendrel::NamedPipeChannel;
using pendrel_test::ChildProcess;
using pendrel_test::EchoChild;
using pendrel_test::PatternBytes;
using pendrel_test::RawClient;
using pendrel_test::UniquePipeName;
using namespace std::chrono_literals;

std::string Narrow(const std::wstring& ascii) { return std::string(ascii.begin(), ascii.end()); }

// Ask: each question gets its own answer, of every size, one packet or many.
TEST(PipeProcesses, AskGetsTheAnswerToEachQuestion) {
  EchoChild child(UniquePipeName());
  NamedPipeChannel server;
  ASSERT_TRUE(child.Open(server)) << Pendrel::Utf16ToUtf8(server.ErrorText());
  unsigned seed = 0;
  for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{32760}, std::size_t{32761},
                           std::size_t{100000}, std::size_t{1} << 20, std::size_t{12}}) {
    const std::string question = PatternBytes(size, ++seed);
    std::string answer;
    ASSERT_EQ(server.Ask(question, answer, 60s), EWaitResult::Message) << size;
    EXPECT_TRUE(answer == question) << size;
  }
  EXPECT_FALSE(server.HasError());
  server.Close();
  EXPECT_EQ(child.Wait(20s), 0);
}

TEST(PipeProcesses, EchoesMessagesOfEverySizeInOrderBothWays) {
  EchoChild child(UniquePipeName());
  NamedPipeChannel server;
  // Echoes come before they are waited for: the server end keeps them all.
  server.SetMaxQueuedMessages(100);
  server.SetMaxQueuedBytes(std::uint64_t{1} << 30);
  ASSERT_TRUE(child.Open(server)) << Pendrel::Utf16ToUtf8(server.ErrorText());

  std::vector<std::string> messages;
  unsigned seed = 0;
  for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{32760}, std::size_t{32761},
                           std::size_t{1} << 20, std::size_t{64} << 20}) {
    messages.push_back(PatternBytes(size, ++seed));
  }
  // Many in a row, of sizes around the packet boundaries.
  for (unsigned i = 0; i < 40; ++i) messages.push_back(PatternBytes((i * 16381) % 98304, ++seed));
  for (const std::string& message : messages) server.Post(message);

  for (std::size_t i = 0; i < messages.size(); ++i) {
    std::string echo;
    ASSERT_EQ(server.WaitForMessage(echo, 60s), EWaitResult::Message) << "message " << i;
    EXPECT_EQ(echo.size(), messages[i].size()) << "message " << i;
    EXPECT_TRUE(echo == messages[i]) << "message " << i;
  }
  EXPECT_FALSE(server.HasError());
  server.Close();
  // The child ends when it sees the server end go.
  EXPECT_EQ(child.Wait(20s), 0);
}

TEST(PipeProcesses, RefusesOtherProcessAndWaitsForTheExpectedOne) {
  const std::wstring name = UniquePipeName();
  pendrel_test::TempDir folder;
  const auto gate = folder.path() / "connect-now";
  ChildProcess child({"--pipe-child", "echo", Narrow(name), gate.string()});
  ASSERT_TRUE(child.Started());
  NamedPipeChannel server;
  server.SetExpectedPeerProcessId(child.ProcessId());
  auto opened = std::async(std::launch::async, [&] { return server.Open(name); });

  // This process is not the expected one.
  RawClient intruder;
  ASSERT_TRUE(intruder.Connect(name));
  EXPECT_TRUE(intruder.WaitForFailure());
  EXPECT_EQ(intruder.PacketsRead(), 0u);
  EXPECT_FALSE(server.IsConnected());

  std::ofstream(gate) << "go";
  ASSERT_TRUE(opened.get());
  server.Post("ping");
  std::string echo;
  ASSERT_EQ(server.WaitForMessage(echo, 10s), EWaitResult::Message);
  EXPECT_EQ(echo, "ping");
  server.Close();
  EXPECT_EQ(child.Wait(20s), 0);
}

}  // namespace
