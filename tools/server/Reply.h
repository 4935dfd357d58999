// What the server answers one HTTP request with, built away from the network code.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace PendrelServer {

struct CReply {
  unsigned Status = 200;
  std::vector<std::pair<std::string, std::string>> Fields;  // in order; Content-Length is added
  std::string Body;
  std::uint32_t HandlerPid = 0;  // the handler that served it, for the access log; 0: none
};

// An RFC 9457 problem: application/problem+json with the status's title and `detail`.
CReply Problem(unsigned status, std::string_view detail);

// The reason phrase the server uses for `status`.
std::string_view StatusTitle(unsigned status);

}  // namespace PendrelServer
