#include "tools/server/forms/HttpForms.h"

#include <cwctype>  // std::towupper
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/url/parse_path.hpp>
#include <boost/url/parse_query.hpp>

#include "tools/server/forms/detail/Base64Decode.h"
#include "tools/server/forms/detail/HeaderField.h"
#include "tools/server/forms/detail/Multipart.h"
#include "tools/server/forms/detail/QuotedPrintable.h"
#include "tools/text/Utf8Text.h"

namespace PendrelServer {
namespace {

namespace urls = boost::urls;
using detail::CHeaderValue;
using detail::CMultipartPart;

constexpr std::string_view kRequestDocumentType = "application/vnd.pendrel.request+json";

// The commands whose second path segment is the CommandAtribute rather than the session key,
// as CRequest::ToHttpURL writes them.
bool SecondSegmentIsAttribute(const std::wstring& command) {
  static constexpr const wchar_t* kCommands[] = {L"REF",  L"SREF",    L"DOC",
                                                 L"SDOC", L"SIMPLEX", L"DUPLEX"};
  for (const wchar_t* candidate : kCommands) {
    if (command == candidate) return true;
  }
  return false;
}

std::wstring ToUpper(std::wstring text) {
  for (wchar_t& c : text) c = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(c)));
  return text;
}

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Checks what the URL grammar would reject for a reason worth naming, and escapes what
// clients commonly send unescaped although a URL cannot hold it (bytes above 0x7F as UTF-8,
// blanks, quotes, braces...), so that Boost.URL reads the rest. `what` names the component.
bool PrepareComponent(std::string_view text, std::string_view what, std::string& out,
                      std::string& problem) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  static constexpr std::string_view kEscaped = " \"<>[\\]^`{|}";
  out.clear();
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '%' && (text.size() - i < 3 || !IsHexDigit(text[i + 1]) || !IsHexDigit(text[i + 2]))) {
      problem = "the " + std::string(what) +
                " holds a \"%\" that is not followed by two hexadecimal digits";
      return false;
    }
    if (c < 0x20 || c == 0x7F) {
      problem = "the " + std::string(what) + " holds a control character";
      return false;
    }
    if (c == '#') {
      problem = "the " + std::string(what) + " holds a \"#\"";
      return false;
    }
    if (c >= 0x80 || kEscaped.find(static_cast<char>(c)) != std::string_view::npos) {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    } else {
      out += static_cast<char>(c);
    }
  }
  return true;
}

// Percent-decodes one component and reads it as UTF-8.
bool DecodeComponent(urls::pct_string_view text, std::string_view what, std::wstring& out,
                     std::string& problem) {
  const std::string bytes = text.decode();
  if (bytes.find('\0') != std::string::npos) {
    problem = std::string(what) + " holds a zero character (%00)";
    return false;
  }
  if (!PendrelTools::DecodeUtf8(bytes, out)) {
    problem = std::string(what) + " is not valid UTF-8 once percent-decoded";
    return false;
  }
  return true;
}

// The path's segments, percent-decoded; none for "" and "/".
bool ReadPathSegments(std::string_view path, std::vector<std::wstring>& segments,
                      std::string& problem) {
  std::string prepared;
  if (!PrepareComponent(path, "path", prepared, problem)) return false;
  if (prepared.empty() || prepared.front() != '/') prepared.insert(prepared.begin(), '/');
  const auto parsed = urls::parse_path(prepared);
  if (!parsed) {
    problem = "the path cannot be read as a URL path: " + parsed.error().message();
    return false;
  }
  segments.clear();
  std::size_t index = 0;
  for (const urls::pct_string_view segment : *parsed) {
    ++index;
    std::wstring decoded;
    if (!DecodeComponent(segment, "path segment " + std::to_string(index), decoded, problem)) {
      return false;
    }
    segments.push_back(std::move(decoded));
  }
  return true;
}

// The query's parameters into `params`, keys upper-cased; the first of a key wins. Empty
// parameters ("a=1&&b=2") are skipped; a key without "=" has an empty value.
bool ReadQuery(std::string_view query, Pendrel::CKeyValueMap& params, std::string& problem) {
  if (query.empty()) return true;
  std::string prepared;
  if (!PrepareComponent(query, "query", prepared, problem)) return false;
  const auto parsed = urls::parse_query(prepared);
  if (!parsed) {
    problem = "the query cannot be read: " + parsed.error().message();
    return false;
  }
  std::size_t index = 0;
  for (const urls::param_pct_view param : *parsed) {
    ++index;
    if (param.key.empty() && !param.has_value) continue;
    std::wstring key;
    std::wstring value;
    const std::string what = "query parameter " + std::to_string(index);
    if (!DecodeComponent(param.key, what + "'s name", key, problem)) return false;
    if (!DecodeComponent(param.value, what + "'s value", value, problem)) return false;
    params.emplace(ToUpper(std::move(key)), std::move(value));
  }
  return true;
}

// Reads a header field's value with its parameters; `what` names the field.
bool ReadField(std::string_view text, std::string_view what, CHeaderValue& value,
               std::string& problem) {
  if (detail::ReadHeaderValue(text, value)) return true;
  problem = "the " + std::string(what) +
            " field cannot be read (a quoted value without its closing quote, or an extended "
            "value that is not percent-encoded UTF-8)";
  return false;
}

// The wide text of parameter `name` of a header field, empty when absent.
bool ReadNameParameter(const CHeaderValue& field, std::string_view name, std::string_view what,
                       std::wstring& out, std::string& problem) {
  out.clear();
  const std::string* value = field.Find(name);
  if (value == nullptr) return true;
  if (PendrelTools::DecodeUtf8(*value, out)) return true;
  problem =
      "the \"" + std::string(name) + "\" of the " + std::string(what) + " field is not valid UTF-8";
  return false;
}

// The content type a MIME name stands for; Binary for names the library does not know and
// for an absent type.
Pendrel::EMimeType TypeOfName(const std::string& mimeName) {
  return Pendrel::GetMimeType(mimeName);
}

// Decodes a part's content by its Content-Transfer-Encoding and appends it to `out`.
bool AppendPartContent(const CMultipartPart& part, std::string& out, std::string& problem) {
  const std::string* encoding = part.Find("content-transfer-encoding");
  const std::string name = encoding == nullptr ? std::string() : detail::AsciiLower(*encoding);
  if (name.empty() || name == "binary" || name == "8bit" || name == "7bit") {
    out.append(part.Content);
    return true;
  }
  if (name == "base64") {
    if (detail::AppendBase64Decoded(part.Content, out)) return true;
    problem = "a part's base64 content is not valid base64";
    return false;
  }
  if (name == "quoted-printable") {
    if (detail::AppendQuotedPrintableDecoded(part.Content, out)) return true;
    problem = "a part's quoted-printable content holds an \"=\" that is not an escape";
    return false;
  }
  problem =
      "a part's Content-Transfer-Encoding is not one of base64, quoted-printable, binary, 8bit "
      "and 7bit";
  return false;
}

// One part of a multipart/mixed body as a file: the library's own part form.
bool ReadMixedPart(const CMultipartPart& part, Pendrel::CMimeFile& file, std::string& problem) {
  CHeaderValue type;
  CHeaderValue disposition;
  if (const std::string* text = part.Find("content-type")) {
    if (!ReadField(*text, "part's Content-Type", type, problem)) return false;
    file.Type = TypeOfName(type.Value);
  } else {
    file.Type = Pendrel::Text;  // a part's type when it names none (RFC 2046)
  }
  if (const std::string* text = part.Find("content-disposition")) {
    if (!ReadField(*text, "part's Content-Disposition", disposition, problem)) return false;
  }
  if (!ReadNameParameter(type, "name", "part's Content-Type", file.Name, problem)) return false;
  if (!ReadNameParameter(disposition, "filename", "part's Content-Disposition", file.FileName,
                         problem)) {
    return false;
  }
  return AppendPartContent(part, file.Data, problem);
}

// A form-data name: browsers and curl send `"`, CR and LF as %22, %0D and %0A, and every
// other byte as it is.
bool ReadFormName(const std::string& text, std::wstring& out) {
  std::string bytes;
  bytes.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && text.size() - i >= 3) {
      const std::string_view escape = std::string_view(text).substr(i, 3);
      const char decoded = escape == "%22"   ? '"'
                           : escape == "%0D" ? '\r'
                           : escape == "%0A" ? '\n'
                                             : 0;
      if (decoded != 0) {
        bytes += decoded;
        i += 2;
        continue;
      }
    }
    bytes += text[i];
  }
  return PendrelTools::DecodeUtf8(bytes, out);
}

// One part of a multipart/form-data body: a file when its Content-Disposition has a
// `filename`, else a request parameter.
bool ReadFormPart(const CMultipartPart& part, Pendrel::CRequest& request, std::string& problem) {
  CHeaderValue disposition;
  const std::string* dispositionText = part.Find("content-disposition");
  if (dispositionText == nullptr) {
    problem = "a form-data part has no Content-Disposition field";
    return false;
  }
  if (!ReadField(*dispositionText, "part's Content-Disposition", disposition, problem)) {
    return false;
  }
  const std::string* fieldName = disposition.Find("name");
  if (fieldName == nullptr) {
    problem = "a form-data part's Content-Disposition has no \"name\"";
    return false;
  }
  const std::string* fileName = disposition.Find("filename");
  if (fileName == nullptr) {
    std::wstring key;
    std::wstring value;
    std::string bytes;
    if (!ReadFormName(*fieldName, key)) {
      problem = "a form field's name is not valid UTF-8";
      return false;
    }
    if (!AppendPartContent(part, bytes, problem)) return false;
    if (!PendrelTools::DecodeUtf8(bytes, value)) {
      problem = "the value of a form field is not valid UTF-8";
      return false;
    }
    request.RequestParams.emplace(ToUpper(std::move(key)), std::move(value));
    return true;
  }
  // A file input left empty: browsers send an empty name and no content.
  if (fileName->empty() && part.Content.empty()) return true;

  Pendrel::CMimeFile file;
  if (!ReadFormName(*fileName, file.FileName)) {
    problem = "a form-data file name is not valid UTF-8";
    return false;
  }
  // The name is the file name without its last extension, as CMimeFile::LoadFromFile sets it.
  file.Name = file.FileName.substr(0, file.FileName.rfind(L'.'));
  // Browsers send application/octet-stream for every type they do not know; the file name's
  // extension may tell more then.
  file.Type = Pendrel::Binary;
  if (const std::string* text = part.Find("content-type")) {
    CHeaderValue type;
    if (!ReadField(*text, "part's Content-Type", type, problem)) return false;
    file.Type = TypeOfName(type.Value);
  }
  if (file.Type == Pendrel::Binary) file.Type = Pendrel::GetMimeTypeByFileExt(file.FileName);
  if (!AppendPartContent(part, file.Data, problem)) return false;
  request.InputData.push_back(std::move(file));
  return true;
}

bool ReadMultipartBody(const CHeaderValue& type, std::string_view body, bool formData,
                       Pendrel::CRequest& request, std::string& problem) {
  const std::string* boundary = type.Find("boundary");
  if (boundary == nullptr || boundary->empty()) {
    problem = "the " + type.Value + " Content-Type field has no boundary parameter";
    return false;
  }
  const detail::MultipartPartHandler onPart = [&](CMultipartPart& part, std::string& partProblem) {
    if (formData) return ReadFormPart(part, request, partProblem);
    Pendrel::CMimeFile file;
    if (!ReadMixedPart(part, file, partProblem)) return false;
    request.InputData.push_back(std::move(file));
    return true;
  };
  return detail::ReadMultipart(body, *boundary, onPart, problem);
}

// The request read from its JSON document; the path may only repeat its command and give
// the session key.
bool ReadRequestDocument(const std::vector<std::wstring>& segments, const std::string& query,
                         const std::string& body, CReadRequest& out) {
  if (!out.Request.FromJsonString(body)) {
    out.Problem = "the request document cannot be read";
    return false;
  }
  const Pendrel::CRequest& request = out.Request;
  if (request.Command.empty()) {
    out.Problem =
        "the request document names no command (a JSON object with a non-empty \"Command\" is "
        "expected)";
    return false;
  }
  if (!query.empty()) {
    out.Problem = "a request document comes with a query; its parameters belong in the document";
    return false;
  }
  if (segments.empty()) return true;
  if (segments.size() > 2) {
    out.Problem =
        "a request document comes with command parameters in the path; they belong in the "
        "document";
    return false;
  }
  if (segments[0] != request.Command) {
    out.Problem = "the path names another command than the request document";
    return false;
  }
  if (segments.size() == 2) {
    if (!SecondSegmentIsAttribute(request.Command)) {
      out.SessionKey = segments[1];
    } else if (segments[1] != request.CommandAtribute) {
      out.Problem = "the path names another command attribute than the request document";
      return false;
    }
  }
  return true;
}

// Command, attribute or session key, and command parameters from the path's segments.
bool ReadCommandPath(std::vector<std::wstring>& segments, CReadRequest& out) {
  if (segments.empty() || segments[0].empty()) {
    out.Problem = "the path names no command";
    return false;
  }
  if (segments.size() > 2 && segments.size() % 2 != 0) {
    out.Problem = "the path holds a command parameter without a value (" +
                  std::to_string(segments.size() - 2) + " segments after the command's two)";
    return false;
  }
  Pendrel::CRequest& request = out.Request;
  request.Command = std::move(segments[0]);
  if (segments.size() > 1) {
    if (SecondSegmentIsAttribute(request.Command)) {
      request.CommandAtribute = std::move(segments[1]);
    } else {
      out.SessionKey = std::move(segments[1]);
    }
  }
  for (std::size_t i = 2; i + 1 < segments.size(); i += 2) {
    request.CommandParams.emplace(std::move(segments[i]), std::move(segments[i + 1]));
  }
  return true;
}

// The body as the request's files (or form fields), by its Content-Type.
bool ReadBody(CHttpRequestParts& parts, const CHeaderValue& type, CReadRequest& out) {
  CHeaderValue disposition;
  if (!parts.ContentDisposition.empty() &&
      !ReadField(parts.ContentDisposition, "Content-Disposition", disposition, out.Problem)) {
    return false;
  }
  if (type.Value == "multipart/mixed") {
    return ReadMultipartBody(type, parts.Body, false, out.Request, out.Problem);
  }
  if (type.Value == "multipart/form-data") {
    return ReadMultipartBody(type, parts.Body, true, out.Request, out.Problem);
  }
  Pendrel::CMimeFile file;
  if (!ReadNameParameter(type, "name", "Content-Type", file.Name, out.Problem) ||
      !ReadNameParameter(disposition, "filename", "Content-Disposition", file.FileName,
                         out.Problem)) {
    return false;
  }
  // The library's form of a request without files: a JSON header and no body.
  if ((type.Value.empty() || type.Value == "application/json") && parts.Body.empty() &&
      file.Name.empty() && file.FileName.empty()) {
    return true;
  }
  file.Type = TypeOfName(type.Value);
  file.Data = std::move(parts.Body);
  out.Request.InputData.push_back(std::move(file));
  return true;
}

}  // namespace

bool ReadRequest(CHttpRequestParts&& parts, CReadRequest& out) {
  out.Request = Pendrel::CRequest();
  out.SessionKey.clear();
  out.Problem.clear();

  std::vector<std::wstring> segments;
  if (!ReadPathSegments(parts.Path, segments, out.Problem)) return false;
  CHeaderValue type;
  if (!parts.ContentType.empty() &&
      !ReadField(parts.ContentType, "Content-Type", type, out.Problem)) {
    return false;
  }
  if (type.Value == kRequestDocumentType) {
    return ReadRequestDocument(segments, parts.Query, parts.Body, out);
  }
  if (!ReadCommandPath(segments, out)) return false;
  if (!ReadQuery(parts.Query, out.Request.RequestParams, out.Problem)) return false;
  return ReadBody(parts, type, out);
}

namespace {

CHttpAnswer AnswerOfForm(const std::string& header, std::string&& body) {
  CHttpAnswer answer;
  std::size_t start = 0;
  while (start < header.size()) {
    std::size_t end = header.find('\n', start);
    if (end == std::string::npos) end = header.size();
    const std::string_view line = std::string_view(header).substr(start, end - start);
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos) {
      answer.Fields.emplace_back(std::string(detail::TrimBlanks(line.substr(0, colon))),
                                 std::string(detail::TrimBlanks(line.substr(colon + 1))));
    }
    start = end + 1;
  }
  answer.Body = std::move(body);
  return answer;
}

}  // namespace

CHttpAnswer AnswerOf(const Pendrel::CResponse& response) {
  std::string header;
  std::string body;
  response.ToHttpRequestData(header, body);
  return AnswerOfForm(header, std::move(body));
}

CHttpAnswer AnswerOf(Pendrel::CResponse&& response) {
  if (response.Data.size() != 1) return AnswerOf(static_cast<const Pendrel::CResponse&>(response));
  // The header of one file depends only on its type and names: write it for the file without
  // its data, and give the data to the body as it stands.
  std::string data = std::move(response.Data.front().Data);
  response.Data.front().Data.clear();
  std::string header;
  std::string body;
  response.ToHttpRequestData(header, body);
  return AnswerOfForm(header, std::move(data));
}

}  // namespace PendrelServer
