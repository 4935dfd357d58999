// Helpers of the handler kit's tests: unique pipe names, a kit running on its own thread
// against a server channel of the test, and handler programs started the way the library
// starts them.
#pragma once

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <string>

#include "handler_kit/CHandlerKit.h"
#include "pipe/NamedPipeChannel.h"

#include "tests/support/TestProcess.h"

namespace pendrel_test {

using namespace std::chrono_literals;

// A pipe name no other test (or parallel test process) uses.
std::wstring UniqueKitPipeName();

// The test's side of a conversation with a kit: the server end of a fresh pipe, and the
// kit's Run on a thread of its own.
class KitConversation {
 public:
  // Starts `kit` and opens the server end; Connected() says whether both met.
  explicit KitConversation(PendrelKit::CHandlerKit& kit);
  // Closes the server end (if Finish did not) and waits for Run.
  ~KitConversation();
  KitConversation(const KitConversation&) = delete;
  KitConversation& operator=(const KitConversation&) = delete;

  bool Connected() const { return m_connected; }
  Pendrel::NamedPipeChannel& Server() { return m_server; }

  // Posts `message` and returns the next message received ("<none>" after `timeout`).
  std::string Exchange(const std::string& message, std::chrono::milliseconds timeout = 10s);
  // The next message received, or "<none>" after `timeout`.
  std::string Next(std::chrono::milliseconds timeout = 10s);

  // Closes the server end and returns what Run returned (-1 if it did not return in 20 s).
  int Finish();

 private:
  Pendrel::NamedPipeChannel m_server;
  std::future<int> m_run;
  bool m_connected = false;
};

// A handler program started as the library starts one: the path, "_MN_=<pipe name>",
// "_DM_=<mode>", "_EX_=2" and the extra arguments (one command line on Windows, an argument
// vector split the library's way elsewhere). The destructor waits a little for it to end and
// kills it if it does not, so no handler outlives its test.
class HandlerProcess : public TestProcess {
 public:
  HandlerProcess(const std::wstring& path, const std::wstring& pipeName, int mode,
                 const std::wstring& extraArguments);
};

}  // namespace pendrel_test
