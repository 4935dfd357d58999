#include "tests/handler_kit/KitTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>  // std::min
#include <atomic>
#include <cctype>  // std::isalnum
#include <thread>
#include <vector>

#include "handler/detail/CommandLine.h"
#include "json/TextConversion.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace pendrel_test {

std::wstring UniqueKitPipeName() { return UniqueTestPipeName("hk"); }

KitConversation::KitConversation(PendrelKit::CHandlerKit& kit) {
  PendrelKit::CHandlerArguments arguments;
  arguments.PipeName = UniqueKitPipeName();
  // The kit tries to connect until the server end is there.
  m_run = std::async(std::launch::async, [&kit, arguments] { return kit.Run(arguments); });
  m_connected = m_server.Open(arguments.PipeName);
}

KitConversation::~KitConversation() { Finish(); }

std::string ServerConversation::Next(std::chrono::milliseconds timeout) {
  std::string message;
  switch (m_server.WaitForMessage(message, timeout)) {
    case Pendrel::EWaitResult::Message:
      return message;
    case Pendrel::EWaitResult::Error:
      return "<error>";
    case Pendrel::EWaitResult::Interrupted:  // nobody interrupts the server's channel
    case Pendrel::EWaitResult::TimedOut:
      break;
  }
  return "<none>";
}

std::string ServerConversation::Exchange(const std::string& message,
                                         std::chrono::milliseconds timeout) {
  m_server.Post(message);
  return Next(timeout);
}

int KitConversation::Finish() {
  if (!m_run.valid()) return -1;
  m_server.Close();
  if (m_run.wait_for(20s) != std::future_status::ready) return -1;
  return m_run.get();
}

HandlerProcess::HandlerProcess(const std::wstring& path, const std::wstring& pipeName, int mode,
                               const std::wstring& extraArguments)
    : TestProcess(CTolvane::detail::BuildCommandLine(path, pipeName, mode, extraArguments),
                  CTolvane::detail::BuildArgumentVector(path, pipeName, mode, extraArguments)) {}

}  // namespace pendrel_test
