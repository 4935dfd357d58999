// What the tests of the server's forms play: an HTTP client sending a request's URL and
// HTTP form, and the server cutting what arrives into CHttpRequestParts.
#pragma once

#include <string>
#include <string_view>

#include "message/CMimeFile.h"
#include "message/CRequest.h"
#include "tools/server/forms/HttpForms.h"

namespace PendrelServerTest {

// A file of the given type, names and data.
Pendrel::CMimeFile File(Pendrel::EMimeType type, std::wstring name, std::wstring fileName,
                        std::string data);

// The mount the tests send to: ToHttpURL is given "127.0.0.1:8080" + kMount as its server.
inline constexpr std::wstring_view kMount = L"/textstats";

// `url` as a client puts it on the wire: UTF-8, with every byte a URL cannot hold as it is
// (non-ASCII, blanks, controls, "%", "#", quotes, brackets...) percent-encoded. "/", "?",
// "&" and "=" stay, so they keep their meaning in the URL.
std::string ClientTarget(std::wstring_view url);

// One component (segment, key, value) as a careful client encodes it: everything but the
// unreserved characters of RFC 3986 percent-encoded.
std::string EncodeComponent(std::wstring_view text);

// The target `request` takes when every component is encoded by itself (what a client does
// when it builds the URL from the record, not from ToHttpURL's text): the shape of
// ToHttpURL, under kMount, with "/", "?", "&", "=", "%" in names and values kept.
std::string ComponentTarget(const Pendrel::CRequest& request, std::wstring_view session);

// What the server hands over for an HTTP request with `target` (from "/" on, mount
// included), the header lines of ToHttpRequestData ("Name: value" joined by "\n") and
// `body`. Fails the test when the target does not start with the mount.
PendrelServer::CHttpRequestParts ServerParts(std::string_view target, std::string_view header,
                                             std::string body, std::string method = "POST");

// The parts a server gets when a client sends `request` under the mount with `session`:
// ToHttpURL through ClientTarget, and ToHttpRequestData.
PendrelServer::CHttpRequestParts PartsOf(const Pendrel::CRequest& request,
                                         const std::wstring& session);

}  // namespace PendrelServerTest
