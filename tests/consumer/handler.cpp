// A handler program built against the installed package with the handler kit, as a
// handler's own build would be.
#include "handler_kit/HandlerKit.h"

static_assert(__cplusplus >= 201703L, "pendrel::handler_kit asks for C++17");

int main(int argc, char** argv) {
  PendrelKit::CHandlerKit kit;
  kit.Info = {L"Consumer", L"Answers every request with its own files", L"1.0"};
  kit.OnRequest = [](const Pendrel::CRequest& request) {
    Pendrel::CResponse response;
    response.Data = request.InputData;
    return response;
  };
  return kit.Run(argc, argv);
}
