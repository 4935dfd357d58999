#include "tests/server/forms/ClientForms.h"

#include <gtest/gtest.h>

#include <utility>  // std::move

#include "tools/text/Utf8Text.h"

namespace PendrelServerTest {
namespace {

constexpr char kHex[] = "0123456789ABCDEF";
constexpr std::wstring_view kServer = L"127.0.0.1:8080";

void AppendEscaped(std::string& out, unsigned char c) {
  out += '%';
  out += kHex[c >> 4];
  out += kHex[c & 0xF];
}

bool IsUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

}  // namespace

Pendrel::CMimeFile File(Pendrel::EMimeType type, std::wstring name, std::wstring fileName,
                        std::string data) {
  Pendrel::CMimeFile file;
  file.Type = type;
  file.Name = std::move(name);
  file.FileName = std::move(fileName);
  file.Data = std::move(data);
  return file;
}

std::string ClientTarget(std::wstring_view url) {
  static constexpr std::string_view kKept = "/?&=:@!$'()*+,;-._~";
  std::string out;
  for (const char byte : PendrelTools::Utf8FromWide(url, PendrelTools::ELoneSurrogate::Keep)) {
    const auto c = static_cast<unsigned char>(byte);
    if (IsUnreserved(c) || kKept.find(byte) != std::string_view::npos) {
      out += byte;
    } else {
      AppendEscaped(out, c);
    }
  }
  return out;
}

std::string EncodeComponent(std::wstring_view text) {
  std::string out;
  for (const char byte : PendrelTools::Utf8FromWide(text, PendrelTools::ELoneSurrogate::Keep)) {
    const auto c = static_cast<unsigned char>(byte);
    if (IsUnreserved(c)) {
      out += byte;
    } else {
      AppendEscaped(out, c);
    }
  }
  return out;
}

std::string ComponentTarget(const Pendrel::CRequest& request, std::wstring_view session) {
  static const std::wstring kAttributeCommands[] = {L"REF",  L"SREF",    L"DOC",
                                                    L"SDOC", L"SIMPLEX", L"DUPLEX"};
  bool attribute = false;
  for (const std::wstring& command : kAttributeCommands) attribute |= request.Command == command;
  std::string target = EncodeComponent(kMount.substr(1));
  target.insert(target.begin(), '/');
  target += '/' + EncodeComponent(request.Command) + '/' +
            EncodeComponent(attribute ? std::wstring_view(request.CommandAtribute) : session);
  for (const auto& [key, value] : request.CommandParams) {
    target += '/' + EncodeComponent(key) + '/' + EncodeComponent(value);
  }
  char separator = '?';
  for (const auto& [key, value] : request.RequestParams) {
    target += separator + EncodeComponent(key) + '=' + EncodeComponent(value);
    separator = '&';
  }
  return target;
}

PendrelServer::CHttpRequestParts ServerParts(std::string_view target, std::string_view header,
                                             std::string body, std::string method) {
  PendrelServer::CHttpRequestParts parts;
  parts.Method = std::move(method);
  const std::string mount = PendrelTools::Utf8FromWide(kMount, PendrelTools::ELoneSurrogate::Keep);
  EXPECT_EQ(target.substr(0, mount.size()), mount) << target;
  target.remove_prefix(std::min(mount.size(), target.size()));
  const std::size_t question = target.find('?');
  parts.Path = std::string(target.substr(0, question));
  if (question != std::string_view::npos) parts.Query = std::string(target.substr(question + 1));

  std::size_t start = 0;
  while (start < header.size()) {
    std::size_t end = header.find('\n', start);
    if (end == std::string_view::npos) end = header.size();
    const std::string_view line = header.substr(start, end - start);
    start = end + 1;
    const std::size_t colon = line.find(':');
    EXPECT_NE(colon, std::string_view::npos) << line;
    if (colon == std::string_view::npos) continue;
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
    if (line.substr(0, colon) == "Content-Type") parts.ContentType = std::string(value);
    if (line.substr(0, colon) == "Content-Disposition") {
      parts.ContentDisposition = std::string(value);
    }
  }
  parts.Body = std::move(body);
  return parts;
}

PendrelServer::CHttpRequestParts PartsOf(const Pendrel::CRequest& request,
                                         const std::wstring& session) {
  const std::wstring url = request.ToHttpURL(std::wstring(kServer) + std::wstring(kMount), session);
  const std::wstring prefix = L"http://" + std::wstring(kServer);
  EXPECT_EQ(url.substr(0, prefix.size()), prefix);
  std::string header;
  std::string body;
  request.ToHttpRequestData(header, body);
  return ServerParts(ClientTarget(url.substr(prefix.size())), header, std::move(body));
}

}  // namespace PendrelServerTest
