// The pendrel command line on Linux, where a person meets what only this platform has: the
// system's reasons for a failed start, handlers killed by signals, pendrel itself stopped by
// a signal, a reader that goes away and a full disk. Every run is checked to leave no
// handler running and none of the pipe's files on disk (XDG_RUNTIME_DIR points into the
// test's own folder).
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "tests/handler/test_handler/TestHandler.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

extern char** environ;

namespace pendrel_test {
namespace {

using namespace std::chrono_literals;
using Arguments = std::vector<std::string>;

// Where the run's standard output goes.
enum class EStdout { File, DevFull, ClosedPipe };

struct CPosixRun {
  int ExitCode = -1;  // -1: it did not exit by itself
  std::string Out;
  std::string Err;
};

std::string ReadAll(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// One run of pendrel in a folder of its own, whose "runtime" subfolder is its
// XDG_RUNTIME_DIR. When `signalAfter` is set, `signal` is sent to pendrel once that file
// exists.
class CRunner {
 public:
  CRunner() { std::filesystem::create_directories(Runtime()); }

  const TempDir& Dir() const { return m_dir; }
  std::filesystem::path Runtime() const { return m_dir.path() / "runtime"; }
  std::string PidFile() const { return (m_dir.path() / "handler.pid").string(); }
  std::string Record() const { return (m_dir.path() / "record").string(); }

  CPosixRun Run(const Arguments& arguments, EStdout out = EStdout::File,
                const std::filesystem::path& signalAfter = {}, int signal = 0) {
    const std::string in = m_dir.Write("stdin", "").string();
    const std::string outFile = (m_dir.path() / "stdout").string();
    const std::string errFile = (m_dir.path() / "stderr").string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
    int pipeEnds[2] = {-1, -1};
    if (out == EStdout::File) {
      posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                       0600);
    } else if (out == EStdout::DevFull) {
      posix_spawn_file_actions_addopen(&actions, 1, "/dev/full", O_WRONLY, 0);
    } else {
      // A reader that has gone already: every write fails with EPIPE.
      EXPECT_EQ(::pipe2(pipeEnds, O_CLOEXEC), 0);
      ::close(pipeEnds[0]);
      posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
    }
    posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    std::vector<std::string> all = {NativePath(PENDREL_CLI_PATH)};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : all) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      if (std::string(*entry).rfind("XDG_RUNTIME_DIR=", 0) != 0) environment.push_back(*entry);
    }
    environment.push_back("XDG_RUNTIME_DIR=" + Runtime().string());
    std::vector<char*> envp;
    for (std::string& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);

    CPosixRun run;
    pid_t pid = 0;
    const int error =
        ::posix_spawn(&pid, all[0].c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (pipeEnds[1] >= 0) ::close(pipeEnds[1]);
    if (error != 0) return run;
    if (!signalAfter.empty()) {
      EXPECT_TRUE(WaitForFile(signalAfter, 10s)) << signalAfter;
      ::kill(pid, signal);
    }
    run.ExitCode = Wait(pid);
    run.Out = ReadAll(outFile);
    run.Err = ReadAll(errFile);
    return run;
  }

  // Nothing of the run is left: the pipe's folder holds no file and the handler (if it wrote
  // its process id) no longer exists.
  void ExpectNothingLeft(const std::string& what) const {
    std::error_code error;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(Runtime(), error)) {
      if (!entry.is_directory()) ADD_FAILURE() << what << ": left " << entry.path();
    }
    const std::string pid = ReadAll(PidFile());
    if (pid.empty()) return;
    errno = 0;
    EXPECT_EQ(::kill(static_cast<pid_t>(std::stol(pid)), 0), -1) << what << ": handler running";
    EXPECT_EQ(errno, ESRCH) << what;
  }

 private:
  // Waits up to 90 s for pendrel to end, then kills it; its exit status, or -1.
  static int Wait(pid_t pid) {
    int status = 0;
    const bool ended = WaitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 90s);
    if (!ended) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  TempDir m_dir;
};

const std::string& Handler() {
  static const std::string path = NativePath(PENDREL_TEST_HANDLER_PATH);
  return path;
}

struct CFailureRow {
  const char* Name;
  Arguments Args;
  int ExitCode;
  std::string Err;  // exactly; "{H}" stands for the handler's path
};

std::string Expand(std::string text, const std::string& handler) {
  for (std::size_t at; (at = text.find("{H}")) != std::string::npos;) {
    text.replace(at, 3, handler);
  }
  return text;
}

TEST(CliPosix, EveryFailureIsToldInEnglishAndLeavesNothingBehind) {
  TempDir files;
  const std::string notExecutable = files.Write("not-executable", "#!/bin/sh\n").string();
  const std::string folder = files.path().string();
  const CFailureRow rows[] = {
      {"missing",
       {"info", folder + "/no-such-handler"},
       69,
       "pendrel: cannot start the handler \"" + folder +
           "/no-such-handler\": No such file or directory\n"},
      {"not executable",
       {"info", notExecutable},
       69,
       "pendrel: cannot start the handler \"" + notExecutable + "\": Permission denied\n"},
      {"a folder",
       {"info", folder},
       69,
       "pendrel: cannot start the handler \"" + folder + "\": it is a folder\n"},
      {"exits 64 at once",
       {"info", Handler(), "--args", "--pid-file {P} --exit-before-connect --exit-code 64"},
       69,
       "pendrel: the handler \"{H}\" ended before it connected to its pipe: it exited with "
       "status 64\n"},
      {"aborts mid-exchange",
       {"call", Handler(), "--command", "PING", "--args", "--pid-file {P} --abort-on-request"},
       70,
       "pendrel: the handler \"{H}\" failed during the request: the handler closed the pipe; it "
       "was killed by SIGABRT\n"},
      {"sends a broken packet",
       {"call", Handler(), "--command", "PING", "--args", "--pid-file {P} --lying-header"},
       70,
       "pendrel: the handler \"{H}\" failed during the request: the handler sent a broken packet "
       "(its header announces more than the packet holds)\n"},
      {"never connects",
       {"info", Handler(), "--args", "--pid-file {P} --never-connect"},
       75,
       "pendrel: the handler \"{H}\" did not connect to its pipe within 10 s\n"},
      {"hangs",
       {"call", Handler(), "--command", "PING", "--timeout", "1", "--args",
        "--pid-file {P} --hang-in-request"},
       75,
       "pendrel: the handler \"{H}\" did not answer the request within 1 s (--timeout); it was "
       "stopped\n"},
  };
  for (const CFailureRow& row : rows) {
    CRunner runner;
    Arguments arguments = row.Args;
    for (std::string& argument : arguments) {
      for (std::size_t at; (at = argument.find("{P}")) != std::string::npos;) {
        argument.replace(at, 3, runner.PidFile());
      }
    }
    const CPosixRun run = runner.Run(arguments);
    EXPECT_EQ(run.ExitCode, row.ExitCode) << row.Name << ": " << run.Err;
    EXPECT_EQ(run.Out, "") << row.Name;
    EXPECT_EQ(run.Err, Expand(row.Err, Handler())) << row.Name;
    runner.ExpectNothingLeft(row.Name);
  }
}

TEST(CliPosix, TheHandlersOutputIsPrefixedOnStandardErrorAndTheResponseParses) {
  CRunner runner;
  const CPosixRun run = runner.Run({"call", Handler(), "--command", "PING", "--args",
                                    "--print hello --pid-file " + runner.PidFile()});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_EQ(run.Err, "handler: out:hello\nhandler: err:hello\n");
  const nlohmann::json response = nlohmann::json::parse(run.Out);
  EXPECT_EQ(response["status"], 3);
  runner.ExpectNothingLeft("a handler that prints");
}

TEST(CliPosix, AStopSignalStopsTheHandlerCleansUpAndExits128PlusN) {
  struct CSignalRow {
    int Signal;
    const char* Name;
  };
  for (const CSignalRow& row : {CSignalRow{SIGINT, "SIGINT"}, CSignalRow{SIGTERM, "SIGTERM"},
                                CSignalRow{SIGHUP, "SIGHUP"}}) {
    CRunner runner;
    // The signal comes while the handler works on the request (it has recorded it).
    const CPosixRun run = runner.Run(
        {"call", Handler(), "--command", "PING", "--args",
         "--pid-file " + runner.PidFile() + " --record " + runner.Record() + " --hang-in-request"},
        EStdout::File, runner.Record(), row.Signal);
    EXPECT_EQ(run.ExitCode, 128 + row.Signal) << row.Name << ": " << run.Err;
    EXPECT_EQ(run.Out, "") << row.Name;
    EXPECT_EQ(run.Err,
              std::string("pendrel: stopped by ") + row.Name + "; the handler was stopped\n");
    runner.ExpectNothingLeft(row.Name);
  }
}

TEST(CliPosix, AHandlerThatIgnoresSigtermIsKilledAfterItsGracePeriod) {
  CRunner runner;
  // SIG_IGN survives exec: the test handler ignores SIGTERM.
  const std::filesystem::path script = runner.Dir().path() / "stubborn-handler";
  {
    std::ofstream out(script);
    out << "#!/bin/sh\ntrap '' TERM\nexec '" << Handler() << "' \"$@\"\n";
  }
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  const auto start = std::chrono::steady_clock::now();
  const CPosixRun run = runner.Run(
      {"call", script.string(), "--command", "PING", "--args",
       "--pid-file " + runner.PidFile() + " --record " + runner.Record() + " --hang-in-request"},
      EStdout::File, runner.Record(), SIGINT);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(run.ExitCode, 130) << run.Err;
  EXPECT_EQ(run.Err, "pendrel: stopped by SIGINT; the handler was stopped\n");
  // Killed after its grace period (5 s), not left to the request's time limit (120 s).
  EXPECT_LT(took, 30s);
  runner.ExpectNothingLeft("a handler that ignores SIGTERM");
}

TEST(CliPosix, AClosedOrFullStandardOutputExits74) {
  struct COutputRow {
    EStdout Out;
    const char* Reason;
  };
  for (const COutputRow& row : {COutputRow{EStdout::ClosedPipe, "Broken pipe"},
                                COutputRow{EStdout::DevFull, "No space left on device"}}) {
    CRunner runner;
    const CPosixRun run =
        runner.Run({"info", Handler(), "--args", "--pid-file " + runner.PidFile()}, row.Out);
    EXPECT_EQ(run.ExitCode, 74) << run.Err;
    EXPECT_EQ(run.Err,
              std::string("pendrel: cannot write to standard output: ") + row.Reason + "\n");
    runner.ExpectNothingLeft(row.Reason);
  }
}

TEST(CliPosix, ASuccessfulCallLeavesNothingBehind) {
  CRunner runner;
  const CPosixRun run = runner.Run({"info", Handler(), "--args", "--pid-file " + runner.PidFile()});
  EXPECT_EQ(run.ExitCode, 0) << run.Err;
  EXPECT_FALSE(ReadAll(runner.PidFile()).empty());
  EXPECT_TRUE(nlohmann::json::parse(run.Out).is_object());
  runner.ExpectNothingLeft("info");
}

}  // namespace
}  // namespace pendrel_test
