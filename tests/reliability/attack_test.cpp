// Programs of the same user that try to get between the library and its handler: one that
// sits on the pipe name before the library makes it, and one that connects to the pipe
// before the handler does. Neither ever exchanges a byte with the library.
// (Other users are kept out by the operating system: attack_posix_test.cpp,
// attack_win_test.cpp.)
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "base/Deadline.h"
#include "handler/CHandler.h"
#include "handler/detail/HandlerSettings.h"
#include "pipe/detail/PacketFraming.h"
#include "pipe/detail/PipeTransport.h"
#include "tests/reliability/ReliabilitySupport.h"
#include "tests/reliability/fault_handler/FaultHandler.h"
#include "tests/support/ForgedPacket.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestProcess.h"
#include "tests/support/WaitFor.h"

namespace pendrel_reliability {
namespace {

using CTolvane::Ok;
using Pendrel::base::Clock;
using Pendrel::detail::PipeTransport;

std::string ReadAll(const std::filesystem::path& file) {
  std::ifstream in(file);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WaitForText(const std::filesystem::path& file, const std::string& text,
                 std::chrono::milliseconds timeout) {
  return pendrel_test::WaitFor([&] { return ReadAll(file).find(text) != std::string::npos; },
                               timeout);
}

// The names Start tries first on this thread while it lives.
class NextPipeNames {
 public:
  explicit NextPipeNames(std::vector<std::wstring> names) {
    m_settings.Get().pipeNames.assign(names.begin(), names.end());
  }

 private:
  CTolvane::detail::ScopedHandlerSettings m_settings;
};

// --squat: a program that holds the name with the library's own transport.
// --squat-raw: one that does not play by its rules (see FaultHandler.h).
class SquattedPipeName : public testing::TestWithParam<const wchar_t*> {};

TEST_P(SquattedPipeName, SquattersEndpointIsNeverUsed) {
  pendrel_test::TempDir dir;
  const std::filesystem::path report = dir.path() / "squat.txt";
  const std::wstring squatted = pendrel_test::UniqueTestPipeName("sq");
  pendrel_test::TestProcess squatter({pendrel_fault::FaultHandlerPath(), GetParam(), squatted,
                                      report.wstring(), L"--lifetime-ms", L"4000"});
  ASSERT_TRUE(squatter.Started());
  ASSERT_TRUE(WaitForText(report, "ready", 10s)) << "the squatter never took the name";

  const NextPipeNames names({squatted, pendrel_test::UniqueTestPipeName("ok")});
  FaultHost host;
  ASSERT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
  EXPECT_EQ(EchoProblem(host.handler, L"real", "data"), "");
  EXPECT_EQ(ReadAll(report), "ready\n") << "somebody connected to the squatter";
  EXPECT_EQ(squatter.Wait(0ms), -1) << "the squatter had gone before the end: nothing was tested";
}

INSTANTIATE_TEST_SUITE_P(Squatters, SquattedPipeName, testing::Values(L"--squat", L"--squat-raw"),
                         [](const testing::TestParamInfo<const wchar_t*>& info) {
                           return std::string(info.index == 0 ? "LibraryTransport" : "BareCalls");
                         });

// What an impostor saw of the pipe.
struct ImpostorView {
  std::atomic<int> connections{0};
  std::atomic<int> dropped{0};
  std::atomic<int> packetsReceived{0};
};

// Connects to `name` as soon as it exists, sends a forged answer, and watches what happens,
// once; gives up at `stop`.
void Impersonate(const std::wstring& name, const std::atomic<bool>& stop, ImpostorView& view) {
  while (!stop) {
    PipeTransport pipe;
    if (pipe.Connect(name) != 0) {
      std::this_thread::sleep_for(1ms);
      continue;
    }
    ++view.connections;
    const std::string answer = R"({"status":0,"Parameters":{"Command":"forged"}})";
    pipe.Send(
        pendrel_test::ForgedPacket(0, static_cast<std::uint32_t>(answer.size()), answer, 32768));
    const auto deadline = Clock::now() + 10s;
    while (Clock::now() < deadline) {
      const Pendrel::detail::TransportEvents events = pipe.Wait(deadline, 32768, 1 << 20);
      if (events.received) ++view.packetsReceived;
      if (events.failure != Pendrel::detail::ETransportFailure::None) {
        ++view.dropped;
        break;
      }
    }
    return;
  }
}

TEST(PipeImpostor, ClientThatConnectsFirstIsRefusedAndTheHandlerStillConnects) {
  const std::wstring name = pendrel_test::UniqueTestPipeName("imp");
  const NextPipeNames names({name});
  std::atomic<bool> stop{false};
  ImpostorView view;
  std::thread impostor([&] { Impersonate(name, stop, view); });
  // The handler waits, so that the impostor is surely first.
  FaultHost host(L"--connect-delay-ms 500");
  stop = true;
  impostor.join();

  ASSERT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
  EXPECT_EQ(view.connections, 1) << "the impostor never got to the pipe: nothing was tested";
  EXPECT_EQ(view.dropped, 1) << "the impostor was not disconnected";
  EXPECT_EQ(view.packetsReceived, 0);
  // The forged answer was never read: the real one comes back.
  EXPECT_EQ(EchoProblem(host.handler, L"real", "data"), "");
  EXPECT_EQ(host.Received(), 1u);
}

}  // namespace
}  // namespace pendrel_reliability
