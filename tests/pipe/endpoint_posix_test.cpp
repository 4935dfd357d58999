// Where the Linux endpoint lives and who may reach it: the socket in a private folder named
// by one rule for both ends, its removal, and descriptors that no child inherits.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "json/TextConversion.h"
#include "pipe/NamedPipeChannel.h"
#include "tests/pipe/PipeTestSupport.h"
#include "tests/support/Platform.h"
#include "tests/support/TempDir.h"

namespace {

using Pendrel::NamedPipeChannel;
using pendrel_test::RawClient;
using pendrel_test::UniquePipeName;
namespace fs = std::filesystem;

const std::wstring kOpenFailed = L"Ошибка открытия канала NamedPipe\n";

// Points XDG_RUNTIME_DIR at a fresh folder while a test runs, and gives it back afterwards.
class PipeEndpoint : public testing::Test {
 protected:
  fs::path Folder() const { return m_runtime.path() / "pendrel"; }

  pendrel_test::TempDir m_runtime;
  pendrel_test::ScopedEnvironmentVariable m_runtimeVariable{"XDG_RUNTIME_DIR",
                                                            m_runtime.path().string()};
};

mode_t ModeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_mode;
}

TEST_F(PipeEndpoint, LivesInPrivateFolderUnderXdgRuntimeDir) {
  const std::wstring name = UniquePipeName();
  const fs::path socket = Folder() / Pendrel::Utf16ToUtf8(name);
  {
    NamedPipeChannel server;
    RawClient client;
    ASSERT_TRUE(OpenWithRawClient(server, client, name));
    EXPECT_TRUE(S_ISDIR(ModeOf(Folder())));
    EXPECT_EQ(ModeOf(Folder()) & 0777, 0700u);
    EXPECT_TRUE(S_ISSOCK(ModeOf(socket)));
  }
  // The server end removes what it made; the folder stays for the next one.
  EXPECT_FALSE(fs::exists(fs::symlink_status(socket)));
  EXPECT_TRUE(fs::is_empty(Folder()));
}

TEST_F(PipeEndpoint, FallsBackToPerUserFolderInTmp) {
  const pendrel_test::ScopedEnvironmentVariable noRuntimeFolder("XDG_RUNTIME_DIR", std::nullopt);
  const std::wstring name = UniquePipeName();
  const fs::path folder = "/tmp/pendrel-" + std::to_string(::geteuid());
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, name));
  EXPECT_TRUE(S_ISSOCK(ModeOf(folder / Pendrel::Utf16ToUtf8(name))));
  EXPECT_EQ(ModeOf(folder) & 077, 0u);
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
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, name));
  for (int attempt = 0; attempt < 2; ++attempt) {
    NamedPipeChannel second;
    EXPECT_FALSE(second.Open(name)) << attempt;
  }
  EXPECT_TRUE(S_ISSOCK(ModeOf(socket)));
  EXPECT_TRUE(fs::exists(socket.string() + ".lock"));
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
  // Server: socket, lock file, wake-up; client: socket, wake-up.
  EXPECT_GE(checked, 5u);
}

}  // namespace
