// pendrel-server-test-echo-handler: the handler the server tests mount, written with the kit.
// What it answers depends on the request's command:
//   FILES   the request's files and request parameters come back as they came;
//   WHO     no file; parameters "pid" (this process) and "session" (the open session's key);
//   SLOW    as WHO, after sleeping the request parameter MS milliseconds (at most 10 s);
//   HANG    never answers (sleeps 60 s), for the server's time-out;
//   CRASH   the process kills itself (SIGKILL) while the request waits;
//   other   one JSON file "request.json" holding the request's JSON form as read, so a test
//           can compare it byte for byte with the request it sent.
// A session's output files (RequestAllOutputFiles) are two: "a.txt" (text) and "b.bin" (the
// 256 byte values).
#include <unistd.h>  // getpid

#include <chrono>
#include <csignal>  // raise, SIGKILL
#include <string>
#include <thread>
#include <utility>

#include "handler_kit/HandlerKit.h"

namespace {

std::wstring SessionKey;  // the kit calls back on one thread

Pendrel::CResponse Who() {
  Pendrel::CResponse response(static_cast<Pendrel::EStatus>(0));
  response.Parameters[L"pid"] = std::to_wstring(getpid());
  response.Parameters[L"session"] = SessionKey;
  return response;
}

Pendrel::CMimeFile File(const wchar_t* name, const wchar_t* fileName, Pendrel::EMimeType type,
                        std::string data) {
  Pendrel::CMimeFile file;
  file.Name = name;
  file.FileName = fileName;
  file.Type = type;
  file.Data = std::move(data);
  return file;
}

}  // namespace

int main(int argc, char** argv) {
  PendrelKit::CHandlerKit kit;
  kit.Info = {L"Echo", L"Answers every request with what it read", L"2.5"};
  kit.Tasks[L"ECHO"] = {L"Echo", L"Returns the request"};
  kit.InputFileSize = 4096;
  // A hung request is ended by the host's kill, not by the kit.
  kit.CloseGracePeriodMs = 120000;
  kit.OnRequest = [](Pendrel::CRequest& request) {
    const std::wstring& command = request.Command;
    if (command == L"FILES") {
      Pendrel::CResponse response(static_cast<Pendrel::EStatus>(0));
      response.Data = std::move(request.InputData);
      response.Parameters = std::move(request.RequestParams);
      return response;
    }
    if (command == L"WHO") return Who();
    if (command == L"SLOW") {
      long ms = 0;
      try {
        ms = std::stol(request.GetRequestValue(L"MS"));
      } catch (...) {
      }
      std::this_thread::sleep_for(
          std::chrono::milliseconds(ms < 0 ? 0 : (ms > 10000 ? 10000 : ms)));
      return Who();
    }
    if (command == L"HANG") {
      std::this_thread::sleep_for(std::chrono::seconds(60));
      return Who();
    }
    if (command == L"CRASH") std::raise(SIGKILL);
    Pendrel::CResponse response(static_cast<Pendrel::EStatus>(0));
    response.Data.push_back(
        File(L"request", L"request.json", Pendrel::EMimeType::Json, request.ToJsonString()));
    return response;
  };
  kit.OnCreateSession = [](const PendrelKit::CSessionInfo& session) {
    SessionKey = session.SessionKey;
    Pendrel::CResponse response = Who();
    response.Parameters[L"user"] = session.User;
    response.Parameters[L"timeout"] = std::to_wstring(session.TaskTimeoutS);
    return response;
  };
  kit.OnCloseSession = [] { SessionKey.clear(); };
  kit.OnAllOutputFiles = [] {
    Pendrel::CResponse response(static_cast<Pendrel::EStatus>(0));
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
    response.Data.push_back(File(L"a", L"a.txt", Pendrel::EMimeType::Text, "hello"));
    response.Data.push_back(File(L"b", L"b.bin", Pendrel::EMimeType::Binary, bytes));
    return response;
  };
  return kit.Run(argc, argv);
}
