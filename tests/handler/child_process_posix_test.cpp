// What a started handler leaves behind on Linux: no zombie, whether or not its CHandler still
// exists, and no descriptor of the host; and where its output goes, as its descriptors show.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "handler/CHandler.h"
#include "tests/handler/test_handler/TestHandler.h"
#include "tests/support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using CTolvane::CHandler;
using CTolvane::Ok;

struct ProcessStatus {
  int pid = 0;
  char state = '?';
};

// The children of this process, from /proc/<pid>/stat ("pid (name) state ppid ...").
std::vector<ProcessStatus> Children() {
  std::vector<ProcessStatus> children;
  const int self = getpid();
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream stat(entry.path() / "stat");
    std::string line;
    if (!std::getline(stat, line)) continue;
    const std::size_t close = line.rfind(')');
    if (close == std::string::npos || close + 4 > line.size()) continue;
    ProcessStatus status;
    status.pid = std::stoi(name);
    status.state = line[close + 2];
    const int parent = std::stoi(line.substr(close + 4));
    if (parent == self) children.push_back(status);
  }
  return children;
}

// Waits until no child is left at all (every one has ended and been collected).
bool NoChildrenWithin(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!Children().empty()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

std::string Describe(const std::vector<ProcessStatus>& children) {
  std::string text;
  for (const ProcessStatus& child : children) {
    text += std::to_string(child.pid) + ":" + child.state + " ";
  }
  return text;
}

TEST(HandlerProcess, EndedHandlerIsCollectedWhileItsOwnerLives) {
  ASSERT_TRUE(NoChildrenWithin(5s)) << Describe(Children());
  CHandler handler;
  ASSERT_EQ(handler.Start(pendrel_test::TestHandlerPath(), 0, L"--exit-after 0"), Ok);
  EXPECT_TRUE(NoChildrenWithin(5s)) << "left: " << Describe(Children());
}

TEST(HandlerProcess, HandlerOutlivingItsOwnerIsCollectedToo) {
  ASSERT_TRUE(NoChildrenWithin(5s)) << Describe(Children());
  {
    CHandler handler;
    ASSERT_EQ(handler.Start(pendrel_test::TestHandlerPath(), 0, L"--delay-ms 300"), Ok);
    ASSERT_EQ(Children().size(), 1u);
  }  // the pipe closes; the handler ends by itself afterwards
  EXPECT_TRUE(NoChildrenWithin(5s)) << "left: " << Describe(Children());
}

TEST(HandlerProcess, HandlerThatFailsToStartIsCollected) {
  ASSERT_TRUE(NoChildrenWithin(5s)) << Describe(Children());
  CHandler handler;
  EXPECT_EQ(handler.Start(pendrel_test::TestHandlerPath(), 0, L"--exit-before-connect"),
            CTolvane::StartFailed);
  EXPECT_TRUE(NoChildrenWithin(5s)) << "left: " << Describe(Children());
}

// Points this process's descriptor `fd` at `file` while it lives, then puts it back.
class RedirectedDescriptor {
 public:
  RedirectedDescriptor(int fd, const std::filesystem::path& file) : m_fd(fd), m_saved(dup(fd)) {
    const int opened = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(opened, fd);
    close(opened);
  }
  ~RedirectedDescriptor() {
    dup2(m_saved, m_fd);
    close(m_saved);
  }
  RedirectedDescriptor(const RedirectedDescriptor&) = delete;
  RedirectedDescriptor& operator=(const RedirectedDescriptor&) = delete;

 private:
  int m_fd;
  int m_saved;
};

std::string Read(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Starts a handler that prints "out:x" and "err:x" with `output`, while this process's own
// output and error go to files; returns what those files got once the handler has printed
// (it prints before it connects) and where the handler's descriptors 1 and 2 lead.
struct OutputSeen {
  std::string hostOut;
  std::string hostErr;
  std::filesystem::path handlerOut;
  std::filesystem::path handlerErr;
};
OutputSeen StartPrinting(CTolvane::EChildOutput output) {
  pendrel_test::TempDir dir;
  OutputSeen seen;
  CHandler handler;
  handler.ChildOutput = output;
  CTolvane::EErrorCode started = CTolvane::StartFailed;
  {
    std::fflush(stdout);
    std::fflush(stderr);
    const RedirectedDescriptor out(1, dir.path() / "out.txt");
    const RedirectedDescriptor err(2, dir.path() / "err.txt");
    started = handler.Start(pendrel_test::TestHandlerPath(), 0, L"--print x");
  }
  EXPECT_EQ(started, Ok);
  const auto children = Children();
  EXPECT_EQ(children.size(), 1u);
  if (children.size() == 1) {
    const std::string fds = "/proc/" + std::to_string(children[0].pid) + "/fd/";
    std::error_code error;
    seen.handlerOut = std::filesystem::read_symlink(fds + "1", error);
    seen.handlerErr = std::filesystem::read_symlink(fds + "2", error);
  }
  seen.hostOut = Read(dir.path() / "out.txt");
  seen.hostErr = Read(dir.path() / "err.txt");
  return seen;
}

TEST(HandlerProcess, OutputIsInheritedByDefault) {
  ASSERT_TRUE(NoChildrenWithin(5s)) << Describe(Children());
  const OutputSeen seen = StartPrinting(CTolvane::EChildOutput::Inherited);
  EXPECT_EQ(seen.hostOut, "out:x\n");
  EXPECT_EQ(seen.hostErr, "err:x\n");
}

TEST(HandlerProcess, OutputCanGoToTheHostsStandardError) {
  ASSERT_TRUE(NoChildrenWithin(5s)) << Describe(Children());
  const OutputSeen seen = StartPrinting(CTolvane::EChildOutput::HostStderr);
  EXPECT_EQ(seen.hostOut, "");
  EXPECT_EQ(seen.hostErr, "out:x\nerr:x\n");
}

TEST(HandlerProcess, OutputCanBeDiscarded) {
  ASSERT_TRUE(NoChildrenWithin(5s)) << Describe(Children());
  const OutputSeen seen = StartPrinting(CTolvane::EChildOutput::Discarded);
  EXPECT_EQ(seen.hostOut, "");
  EXPECT_EQ(seen.hostErr, "");
  EXPECT_EQ(seen.handlerOut, "/dev/null");
  EXPECT_EQ(seen.handlerErr, "/dev/null");
}

TEST(HandlerProcess, InheritsNoDescriptorOfTheHost) {
  pendrel_test::TempDir dir;
  const std::filesystem::path secret = dir.Write("host-secret.txt", "x");
  // Opened the careless way: without close-on-exec.
  const int fd = open(secret.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  CHandler handler;
  ASSERT_EQ(handler.Start(pendrel_test::TestHandlerPath(), 0, L""), Ok);
  const auto children = Children();
  ASSERT_EQ(children.size(), 1u);
  const std::filesystem::path fds = "/proc/" + std::to_string(children[0].pid) + "/fd";
  int inherited = 0;
  for (const auto& entry : std::filesystem::directory_iterator(fds)) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink(entry.path(), error);
    if (!error && target == secret) ++inherited;
  }
  close(fd);
  EXPECT_EQ(inherited, 0);
}

}  // namespace
