#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <thread>

#include "base/RetryOnEintr.h"
#include "tests/cli/CliProcess.h"
#include "tests/support/TempDir.h"

extern char** environ;

namespace pendrel_test {
namespace {

std::string ReadAll(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Waits for `pid` for up to 90 s, then kills it; the exit code, or -1.
int WaitFor(pid_t pid) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(90);
  int status = 0;
  for (;;) {
    const pid_t done =
        Pendrel::base::RetryOnEintr([&] { return ::waitpid(pid, &status, WNOHANG); });
    if (done == pid) break;
    if (done < 0) return -1;
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

CProgramRun RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                       const std::string& input) {
  TempDir streams;
  const std::string in = streams.Write("stdin", input).string();
  const std::string out = (streams.path() / "stdout").string();
  const std::string err = (streams.path() / "stderr").string();

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<std::string> all = {program};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& argument : all) argv.push_back(argument.data());
  argv.push_back(nullptr);

  CProgramRun run;
  pid_t pid = 0;
  const int error = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return run;
  run.ExitCode = WaitFor(pid);
  run.Out = ReadAll(out);
  run.Err = ReadAll(err);
  return run;
}

}  // namespace pendrel_test
