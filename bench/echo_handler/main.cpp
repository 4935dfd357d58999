// pendrel-bench-echo-handler: the handler the handler figures drive, written with the kit as
// any handler is. It answers every request with a response that carries the request's own
// files and parameters back, so a round trip moves the same bytes both ways.
#include <utility>  // std::move

#include "handler_kit/HandlerKit.h"

int main(int argc, char** argv) {
  PendrelKit::CHandlerKit kit;
  kit.Info = {L"Echo", L"Answers every request with its own files", L"1.0"};
  kit.Tasks[L"ECHO"] = {L"Echo", L"Returns the input files"};
  // The request is the kit's own: its files go into the answer without a copy.
  kit.OnRequest = [](Pendrel::CRequest& request) {
    Pendrel::CResponse response(static_cast<Pendrel::EStatus>(0));
    response.Data = std::move(request.InputData);
    response.Parameters = std::move(request.RequestParams);
    return response;
  };
  return kit.Run(argc, argv);
}
