// Where the Linux endpoint lives and who may reach it: the socket in a private folder named
// by one rule for both ends, its removal once the client is in or the server end fails, and
// descriptors that no child inherits.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <set>
#include <string>

#include "json/TextConversion.h"
#include "pipe/NamedPipeChannel.h"
#include "pipe/detail/PipeTransport.h"
#include "tests/pipe/PipeTestSupport.h"
#include "tests/support/Platform.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

namespace {

using Pendrel::NamedPipeChannel;
using pendrel_test::RawClient;
using pendrel_test::UniquePipeName;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::wstring kOpenFailed = L"Ошибка открытия канала NamedPipe\n";

// Points XDG_RUNTIME_DIR at a fresh folder while a test runs, and gives it back afterwards.
class PipeEndpoint : public testing::Test {
 protected:
  fs::path Folder() const { return m_runtime.path() / "pendrel"; }

  pendrel_test::TempDir m_runtime;
  pendrel_test::ScopedEnvironmentVariable m_runtimeVariable{"XDG_RUNTIME_DIR",
                                                            m_runtime.path().string()};
};

// The names in `folder`.
std::set<std::string> Listing(const fs::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

mode_t ModeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_mode;
}

TEST_F(PipeEndpoint, LivesInPrivateFolderUnderXdgRuntimeDir) {
  const std::wstring name = UniquePipeName();
  const fs::path socket = Folder() / Pendrel::Utf16ToUtf8(name);
  NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(name));
  EXPECT_TRUE(S_ISDIR(ModeOf(Folder())));
  EXPECT_EQ(ModeOf(Folder()) & 0777, 0700u);
  EXPECT_TRUE(S_ISSOCK(ModeOf(socket)));
  EXPECT_EQ(Pendrel::detail::EndpointFolder(), Pendrel::Utf8ToUtf16(Folder().string()));
}

TEST_F(PipeEndpoint, SocketAndLockGoOnceTheClientIsIn) {
  const std::wstring name = UniquePipeName();
  const std::string bare = Pendrel::Utf16ToUtf8(name);
  NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(name));
  // Before: the endpoint and its lock.
  EXPECT_EQ(Listing(Folder()), (std::set<std::string>{bare, bare + ".lock"}));
  RawClient client;
  auto connected = std::async(std::launch::async, [&] { return server.WaitForConnection(); });
  ASSERT_TRUE(client.Connect(name));
  ASSERT_TRUE(connected.get());
  // During: nothing, while messages go both ways.
  EXPECT_TRUE(fs::is_empty(Folder()));
  server.Post("question");
  std::string packet;
  ASSERT_TRUE(client.Read(packet));
  ASSERT_TRUE(client.WriteMessage("answer"));
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), Pendrel::EWaitResult::Message);
  EXPECT_EQ(message, "answer");
  EXPECT_TRUE(fs::is_empty(Folder()));
  // After: nothing either; the folder stays for the next one.
  server.Close();
  EXPECT_TRUE(fs::is_empty(Folder()));
}

TEST_F(PipeEndpoint, SocketAndLockGoWhenNoClientComes) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  server.SetTimeLimitMs(300);
  server.SetOpenTimeLimitMs(100);
  ASSERT_TRUE(server.Listen(name));
  EXPECT_FALSE(server.WaitForConnection());
  // The worker waits out its own limit, then lets go of the name.
  ASSERT_TRUE(
      pendrel_test::WaitFor([&] { return server.State() == Pendrel::EChannelState::Failed; }, 5s));
  EXPECT_EQ(server.Failure().Failure, Pendrel::EChannelFailure::NoClient);
  EXPECT_TRUE(fs::is_empty(Folder()));
}

TEST_F(PipeEndpoint, SocketAndLockGoWhenTheExpectedClientEnds) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  server.SetExpectedPeerProcessId(1);  // a process that never connects
  ASSERT_TRUE(server.Listen(name));
  server.NotifyPeerExited();
  EXPECT_FALSE(server.WaitForConnection());
  ASSERT_TRUE(
      pendrel_test::WaitFor([&] { return server.State() == Pendrel::EChannelState::Failed; }, 5s));
  EXPECT_TRUE(fs::is_empty(Folder()));
}

TEST_F(PipeEndpoint, ClientLooksInPendrelPipeDirFirst) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(name));
  // The client is told the server's folder, while its own runtime folder is elsewhere.
  pendrel_test::TempDir elsewhere;
  const pendrel_test::ScopedEnvironmentVariable told("PENDREL_PIPE_DIR", Folder().string());
  const pendrel_test::ScopedEnvironmentVariable runtime("XDG_RUNTIME_DIR",
                                                        elsewhere.path().string());
  RawClient client;
  auto connected = std::async(std::launch::async, [&] { return server.WaitForConnection(); });
  EXPECT_EQ(client.ConnectOnce(name), 0u);
  EXPECT_TRUE(connected.get());
}

// A client announcing packets of 2 MiB (which Linux carries only with a send buffer raised to
// fit) is refused at the first one; the server end keeps its packet size.
TEST_F(PipeEndpoint, ServerEndRefusesTwoMebibytePacket) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(name));
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  constexpr int kPacket = 2 << 20;
  int buffer = 2 * kPacket;
  // SO_SNDBUFFORCE passes the system's cap, for a privileged user.
  if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof(buffer)) != 0) {
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof(buffer));
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (Folder() / Pendrel::Utf16ToUtf8(name))
      .string()
      .copy(address.sun_path, sizeof(address.sun_path) - 1);
  auto connected = std::async(std::launch::async, [&] { return server.WaitForConnection(); });
  ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_TRUE(connected.get());
  const std::string packet = pendrel_test::ForgedPacket(0, 5, "hello", kPacket);
  if (::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) != kPacket) {
    ::close(fd);
    GTEST_SKIP() << "this system does not carry packets of 2 MiB";
  }
  std::string message;
  EXPECT_EQ(server.WaitForMessage(message, 5s), Pendrel::EWaitResult::Error);
  EXPECT_EQ(server.Failure(), (Pendrel::CChannelFailure{Pendrel::EChannelFailure::ReadFailed,
                                                        Pendrel::kPacketTooLargeCode}));
  EXPECT_EQ(server.PacketSize(), 32768u);
  ::close(fd);
}

TEST_F(PipeEndpoint, FallsBackToPerUserFolderInTmp) {
  const pendrel_test::ScopedEnvironmentVariable noRuntimeFolder("XDG_RUNTIME_DIR", std::nullopt);
  const std::wstring name = UniquePipeName();
  const fs::path folder = "/tmp/pendrel-" + std::to_string(::geteuid());
  NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(name));
  EXPECT_TRUE(S_ISSOCK(ModeOf(folder / Pendrel::Utf16ToUtf8(name))));
  EXPECT_EQ(ModeOf(folder) & 077, 0u);
  EXPECT_EQ(Pendrel::detail::EndpointFolder(), Pendrel::Utf8ToUtf16(folder.string()));
}

TEST_F(PipeEndpoint, RefusesFolderOpenToOthers) {
  fs::create_directory(Folder());
  fs::permissions(Folder(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                fs::perms::others_read | fs::perms::others_exec);
  NamedPipeChannel server;
  EXPECT_FALSE(server.Open(UniquePipeName()));
  EXPECT_EQ(server.ErrorText(), kOpenFailed);
}

TEST_F(PipeEndpoint, RefusesFolderThatIsALink) {
  const fs::path elsewhere = m_runtime.path() / "elsewhere";
  fs::create_directory(elsewhere);
  fs::permissions(elsewhere, fs::perms::owner_all);
  fs::create_directory_symlink(elsewhere, Folder());
  NamedPipeChannel server;
  EXPECT_FALSE(server.Open(UniquePipeName()));
  EXPECT_EQ(server.ErrorText(), kOpenFailed);
}

TEST_F(PipeEndpoint, ReplacesSocketLeftBehindByDeadServer) {
  const std::wstring name = UniquePipeName();
  fs::create_directory(Folder());
  fs::permissions(Folder(), fs::perms::owner_all);
  const std::string path = (Folder() / Pendrel::Utf16ToUtf8(name)).string();
  // A socket file that nobody listens on any more.
  const int stale = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  ASSERT_GE(stale, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  ASSERT_EQ(::bind(stale, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  ::close(stale);
  ASSERT_TRUE(fs::exists(fs::symlink_status(path)));

  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, name));
}

TEST_F(PipeEndpoint, FailedSecondServerLeavesTheNameTaken) {
  const std::wstring name = UniquePipeName();
  const fs::path socket = Folder() / Pendrel::Utf16ToUtf8(name);
  NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(name));
  for (int attempt = 0; attempt < 2; ++attempt) {
    NamedPipeChannel second;
    EXPECT_FALSE(second.Open(name)) << attempt;
  }
  EXPECT_TRUE(S_ISSOCK(ModeOf(socket)));
  EXPECT_TRUE(fs::exists(socket.string() + ".lock"));
  RawClient client;
  auto connected = std::async(std::launch::async, [&] { return server.WaitForConnection(); });
  ASSERT_TRUE(client.Connect(name));
  ASSERT_TRUE(connected.get());
  server.Post("still here");
  std::string packet;
  ASSERT_TRUE(client.Read(packet));
  EXPECT_EQ(packet.substr(8, 10), "still here");
}

TEST_F(PipeEndpoint, RefusesNameThatWouldLeaveTheFolder) {
  NamedPipeChannel server;
  EXPECT_FALSE(server.Open(L"../escape"));
  EXPECT_EQ(server.ErrorText(), kOpenFailed);
  EXPECT_FALSE(fs::exists(fs::symlink_status(m_runtime.path() / "escape")));
}

TEST_F(PipeEndpoint, KeepsEveryDescriptorCloseOnExec) {
  NamedPipeChannel server;
  const std::wstring name = UniquePipeName();
  RawClient raw;
  ASSERT_TRUE(OpenWithRawClient(server, raw, name));
  unsigned checked = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const std::string target = fs::read_symlink(entry.path(), error).string();
    const bool ours = target.rfind("socket:", 0) == 0 ||
                      target.find("eventfd") != std::string::npos ||
                      target.rfind(Folder().string(), 0) == 0;
    if (!ours) continue;
    const int fd = std::stoi(entry.path().filename().string());
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags == -1) continue;  // the directory listing's own descriptor, already closed
    EXPECT_NE(flags & FD_CLOEXEC, 0) << target;
    ++checked;
  }
  // Server: socket, wake-up (the lock file went once the client was in); client: socket,
  // wake-up.
  EXPECT_GE(checked, 4u);
}

}  // namespace
