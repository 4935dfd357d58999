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

// The test's server end of a pipe, read one message at a time.
class ServerConversation {
 public:
  Pendrel::NamedPipeChannel& Server() { return m_server; }

  // The next message received; "<error>" once the pipe has failed, "<none>" after `timeout`.
  std::string Next(std::chrono::milliseconds timeout = 10s);
  // Posts `message`, then Next(timeout).
  std::string Exchange(const std::string& message, std::chrono::milliseconds timeout = 10s);

 protected:
  Pendrel::NamedPipeChannel m_server;
};

// The test's side of a conversation with a kit: the server end of a fresh pipe, and the
// kit's Run on a thread of its own.
class KitConversation : public ServerConversation {
 public:
  // Starts `kit` and opens the server end; Connected() says whether both met.
  explicit KitConversation(PendrelKit::CHandlerKit& kit);
  // Closes the server end (if Finish did not) and waits for Run.
  ~KitConversation();
  KitConversation(const KitConversation&) = delete;
  KitConversation& operator=(const KitConversation&) = delete;

  bool Connected() const { return m_connected; }

  // Closes the server end and returns what Run returned (-1 if it did not return in 20 s).
  int Finish();

 private:
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
