// Nothing of a handler's pipe stays on disk once the handler has connected or failed.
// Another user cannot reach a pipe: the endpoint's folder is closed to everybody else, and
// should it be opened, the server end still refuses a client of another user before any
// byte is exchanged. The client runs as "nobody" (pendrel_other_user_client), which needs
// the test to run as root; otherwise the test is skipped. Nor can another user stop the
// library by making its shared fallback folder in /tmp first: it makes a private one.
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "base/Deadline.h"
#include "base/RetryOnEintr.h"
#include "json/TextConversion.h"
#include "pipe/NamedPipeChannel.h"
#include "pipe/detail/PipeTransport.h"
#include "pipe/detail/PipeTransport_posix.h"
#include "tests/reliability/ReliabilitySupport.h"
#include "tests/support/Platform.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestProcess.h"
#include "tests/support/WaitFor.h"

namespace {

using namespace std::chrono_literals;

constexpr int kRefusedAtConnect = 10;
constexpr int kDropped = 11;
constexpr int kCannotRun = 127;

// Runs the other-user client as `user` on `socketPath`; its exit code, or -1.
int RunClientAs(const passwd& user, const std::string& socketPath) {
  const std::string program = PENDREL_OTHER_USER_CLIENT_PATH;
  const pid_t pid = ::fork();
  if (pid == 0) {
    // Only async-signal-safe calls between fork and exec.
    if (::setgroups(0, nullptr) != 0 || ::setgid(user.pw_gid) != 0 || ::setuid(user.pw_uid) != 0) {
      ::_exit(kCannotRun);
    }
    char* const argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>(socketPath.c_str()),
                          nullptr};
    ::execv(program.c_str(), argv);
    ::_exit(kCannotRun);
  }
  if (pid < 0) return -1;
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  for (;;) {
    int status = 0;
    const pid_t done =
        Pendrel::base::RetryOnEintr([&] { return ::waitpid(pid, &status, WNOHANG); });
    if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (done == -1 || std::chrono::steady_clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(10ms);
  }
}

// Points the endpoints of this test process at a folder of its own while it lives, so that
// opening it up disturbs no other test.
class PrivateRuntimeFolder {
 public:
  PrivateRuntimeFolder() {
    // Others may pass through, not list; the library's folder inside is its own.
    ::chmod(m_dir.path().c_str(), 0711);
  }
  std::filesystem::path Endpoints() const { return m_dir.path() / "pendrel"; }

 private:
  pendrel_test::TempDir m_dir;
  pendrel_test::ScopedEnvironmentVariable m_variable{"XDG_RUNTIME_DIR", m_dir.path().string()};
};

TEST(PipeOtherUser, CannotConnectEvenWhenTheFolderIsOpened) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "runs a client as the user nobody, which needs root; this runs as uid "
                 << ::geteuid();
  }
  const passwd* found = ::getpwnam("nobody");
  if (found == nullptr) GTEST_SKIP() << "no user nobody on this system";
  const passwd nobody = *found;

  const PrivateRuntimeFolder runtime;
  const std::wstring name = pendrel_test::UniqueTestPipeName("uid");
  Pendrel::NamedPipeChannel server;
  server.SetOpenTimeLimitMs(60000);
  ASSERT_TRUE(server.Listen(name));
  const std::string socketPath = (runtime.Endpoints() / Pendrel::Utf16ToUtf8(name)).string();
  bool connected = false;
  std::thread waiter([&] { connected = server.WaitForConnection(); });

  // As the library leaves it: the folder alone keeps the other user out.
  const int closedFolder = RunClientAs(nobody, socketPath);
  // Opened by hand: the server end sees the client's user and drops it.
  ::chmod(runtime.Endpoints().c_str(), 0711);
  ::chmod(socketPath.c_str(), 0777);
  const int openedFolder = RunClientAs(nobody, socketPath);
  ::chmod(runtime.Endpoints().c_str(), 0700);

  // The server end still waits, and takes a client of its own user.
  Pendrel::detail::PipeTransport client;
  const std::uint32_t connectError = client.Connect(name);
  waiter.join();
  if (closedFolder == kCannotRun || openedFolder == kCannotRun) {
    GTEST_SKIP() << "the client could not run as nobody (a folder on its path closed to others?)";
  }
  EXPECT_EQ(closedFolder, kRefusedAtConnect);
  EXPECT_EQ(openedFolder, kDropped);
  EXPECT_EQ(connectError, 0u);
  EXPECT_TRUE(connected);
  server.Post("for the real client");
  const auto deadline = Pendrel::base::Clock::now() + 5s;
  bool received = false;
  while (!received && Pendrel::base::Clock::now() < deadline) {
    received = client.Wait(deadline, 32768, 1 << 20).received;
  }
  EXPECT_TRUE(received);
  std::string message;
  EXPECT_FALSE(server.TakeMessage(message)) << "the forged message was read: " << message;
}

// Puts the shared fallback folder under a test folder of its own while it lives, without
// XDG_RUNTIME_DIR, and with TMPDIR pointing at another, where a fresh folder would go.
class FallbackFolders {
 public:
  FallbackFolders() { Pendrel::detail::SetTempFolderRootForTesting(m_root.path().string()); }
  ~FallbackFolders() { Pendrel::detail::SetTempFolderRootForTesting("/tmp"); }
  FallbackFolders(const FallbackFolders&) = delete;
  FallbackFolders& operator=(const FallbackFolders&) = delete;

  std::filesystem::path Shared() const {
    return m_root.path() / ("pendrel-" + std::to_string(::geteuid()));
  }
  std::filesystem::path TempRoot() const { return m_temp.path(); }

 private:
  pendrel_test::TempDir m_root;
  pendrel_test::TempDir m_temp;
  pendrel_test::ScopedEnvironmentVariable m_runtime{"XDG_RUNTIME_DIR", std::nullopt};
  pendrel_test::ScopedEnvironmentVariable m_tmpdir{"TMPDIR", m_temp.path().string()};
};

// A name short enough for a socket path deep in a test folder.
std::wstring ShortName(const char* prefix) {
  return Pendrel::Utf8ToUtf16(prefix + std::to_string(::getpid()));
}

struct SquatCase {
  const char* name;
  // Makes `folder` what a squatter left there; false if this system cannot.
  bool (*squat)(const std::filesystem::path& folder, const std::filesystem::path& scratch);
};

void PrintTo(const SquatCase& c, std::ostream* out) { *out << c.name; }

class PipeSquattedFallback : public testing::TestWithParam<SquatCase> {};

TEST_P(PipeSquattedFallback, ServerEndMakesAFreshPrivateFolder) {
  const FallbackFolders folders;
  if (!GetParam().squat(folders.Shared(), folders.TempRoot())) {
    GTEST_SKIP() << "this system cannot make that squatter (needs root)";
  }
  const std::wstring name = ShortName("squat");
  Pendrel::NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(name)) << Pendrel::Utf16ToUtf8(server.ErrorText());

  const std::filesystem::path fresh = Pendrel::Utf16ToUtf8(Pendrel::detail::EndpointFolder());
  EXPECT_EQ(fresh.parent_path(), folders.TempRoot());
  EXPECT_EQ(fresh.filename().string().rfind("pendrel-" + std::to_string(::geteuid()) + "-", 0), 0u)
      << fresh;
  struct stat info {};
  ASSERT_EQ(::lstat(fresh.c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  EXPECT_EQ(info.st_uid, ::geteuid());
  EXPECT_TRUE(std::filesystem::exists(fresh / Pendrel::Utf16ToUtf8(name)));

  // Once per process: a second server end uses the same folder.
  Pendrel::NamedPipeChannel second;
  ASSERT_TRUE(second.Listen(name + L"b"));
  EXPECT_TRUE(std::filesystem::exists(fresh / (Pendrel::Utf16ToUtf8(name) + "b")));

  // A client told the folder (as the library tells its handlers) connects.
  const pendrel_test::ScopedEnvironmentVariable told("PENDREL_PIPE_DIR", fresh.string());
  Pendrel::detail::PipeTransport client;
  auto connected = std::async(std::launch::async, [&] { return server.WaitForConnection(); });
  EXPECT_EQ(client.Connect(name), 0u);
  EXPECT_TRUE(connected.get());
  second.Close();
  server.Close();
  EXPECT_TRUE(std::filesystem::is_empty(fresh));
}

bool OpenToOthers(const std::filesystem::path& folder, const std::filesystem::path&) {
  std::filesystem::create_directory(folder);
  return ::chmod(folder.c_str(), 0777) == 0;
}

bool LinkToPrivateFolder(const std::filesystem::path& folder,
                         const std::filesystem::path& scratch) {
  const std::filesystem::path target = scratch / "elsewhere";
  std::filesystem::create_directory(target);
  ::chmod(target.c_str(), 0700);
  std::filesystem::create_directory_symlink(target, folder);
  return true;
}

bool PlainFile(const std::filesystem::path& folder, const std::filesystem::path&) {
  return std::ofstream(folder).good();
}

bool OtherUsersFolder(const std::filesystem::path& folder, const std::filesystem::path&) {
  if (::geteuid() != 0) return false;
  std::filesystem::create_directory(folder);
  ::chmod(folder.c_str(), 0700);
  return ::chown(folder.c_str(), 65534, 65534) == 0;
}

INSTANTIATE_TEST_SUITE_P(Squatters, PipeSquattedFallback,
                         testing::Values(SquatCase{"OpenToOthers", OpenToOthers},
                                         SquatCase{"LinkToPrivateFolder", LinkToPrivateFolder},
                                         SquatCase{"PlainFile", PlainFile},
                                         SquatCase{"OtherUsersFolder", OtherUsersFolder}),
                         [](const testing::TestParamInfo<SquatCase>& info) {
                           return std::string(info.param.name);
                         });

TEST(PipeFallbackFolder, SharedFolderOfOursIsUsedAsItIs) {
  const FallbackFolders folders;
  Pendrel::NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(ShortName("shared")));
  EXPECT_EQ(Pendrel::detail::EndpointFolder(), Pendrel::Utf8ToUtf16(folders.Shared().string()));
  EXPECT_TRUE(std::filesystem::is_empty(folders.TempRoot())) << "a fresh folder was made";
}

TEST(PipeFallbackFolder, FreshFolderGoesOnceForgotten) {
  const FallbackFolders folders;
  std::filesystem::create_directory(folders.Shared());
  ::chmod(folders.Shared().c_str(), 0755);
  Pendrel::NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(ShortName("fresh")));
  const std::filesystem::path fresh = Pendrel::Utf16ToUtf8(Pendrel::detail::EndpointFolder());
  EXPECT_EQ(fresh.parent_path(), folders.TempRoot());
  server.Close();
  // Forgotten, as at the end of the process, the empty fresh folder is removed.
  Pendrel::detail::SetTempFolderRootForTesting(folders.Shared().parent_path().string());
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(fresh)));
  EXPECT_TRUE(std::filesystem::exists(folders.TempRoot()));
}

// The runtime folder of a host while it starts a handler, exchanges with it, and after:
// the socket and its lock are there only until the handler has connected.
TEST(PipeRuntimeFolder, HoldsTheEndpointOnlyUntilTheHandlerConnects) {
  const PrivateRuntimeFolder runtime;
  std::optional<pendrel_reliability::FaultHost> host;
  // The handler waits before connecting, so the folder can be seen while Start waits.
  auto started = std::async(std::launch::async, [&] {
    host.emplace(L"--connect-delay-ms 1500 --delay-ms 300");
    return host->StartResult();
  });
  const auto listing = [&] {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(runtime.Endpoints(), ignored)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  };
  // Before: the socket and its lock.
  EXPECT_TRUE(pendrel_test::WaitFor([&] { return listing().size() == 2; }, 10s));
  const std::vector<std::string> before = listing();
  ASSERT_EQ(started.get(), CTolvane::Ok);
  EXPECT_EQ(before.size(), 2u);
  EXPECT_TRUE(listing().empty()) << "left once connected: " << listing().front();
  // During an exchange (the handler takes its time to answer) and after it.
  std::vector<std::string> during{"not listed"};
  auto exchange = std::async(std::launch::async, [&] {
    return pendrel_reliability::EchoProblem(host->handler, L"during", "x");
  });
  EXPECT_TRUE(pendrel_test::WaitFor([&] { return host->Received() == 1; }, 10s));
  during = listing();
  EXPECT_EQ(exchange.get(), "");
  EXPECT_TRUE(during.empty());
  EXPECT_TRUE(listing().empty());
  host.reset();
  EXPECT_TRUE(listing().empty());
}

TEST(PipeRuntimeFolder, HoldsNothingAfterAFailedStart) {
  const PrivateRuntimeFolder runtime;
  {
    // The handler ends before it connects.
    pendrel_reliability::FaultHost host(L"--connect-delay-ms 5000 --lifetime-ms 0");
    EXPECT_EQ(host.StartResult(), CTolvane::StartFailed);
    EXPECT_TRUE(std::filesystem::is_empty(runtime.Endpoints()));
  }
  EXPECT_TRUE(std::filesystem::is_empty(runtime.Endpoints()));
}

}  // namespace
