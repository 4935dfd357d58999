// Another user cannot reach a pipe: the endpoint's folder is closed to everybody else, and
// should it be opened, the server end still refuses a client of another user before any
// byte is exchanged. The client runs as "nobody" (pendrel_other_user_client), which needs
// the test to run as root; otherwise the test is skipped.
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
#include <string>
#include <thread>

#include "base/Deadline.h"
#include "base/RetryOnEintr.h"
#include "json/TextConversion.h"
#include "pipe/NamedPipeChannel.h"
#include "pipe/detail/PipeTransport.h"
#include "tests/support/Platform.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestProcess.h"

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

}  // namespace
