#include "tools/server/Reply.h"

#include "tools/server/Text.h"

namespace PendrelServer {
namespace {

struct CStatusTitle {
  unsigned Status;
  std::string_view Title;
};
constexpr CStatusTitle kTitles[] = {
    {200, "OK"},
    {201, "Created"},
    {204, "No Content"},
    {400, "Bad Request"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {413, "Content Too Large"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
};

}  // namespace

std::string_view StatusTitle(unsigned status) {
  for (const CStatusTitle& entry : kTitles) {
    if (entry.Status == status) return entry.Title;
  }
  return "Error";
}

CReply Problem(unsigned status, std::string_view detail) {
  CReply reply;
  reply.Status = status;
  reply.Fields.emplace_back("Content-Type", "application/problem+json");
  reply.Body = "{\"type\":\"about:blank\",\"title\":" + JsonQuoted(StatusTitle(status)) +
               ",\"status\":" + std::to_string(status) + ",\"detail\":" + JsonQuoted(detail) + "}";
  return reply;
}

}  // namespace PendrelServer
