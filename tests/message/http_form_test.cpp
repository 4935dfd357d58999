#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "message/CRequest.h"
#include "message/CResponse.h"
#include "message/detail/HttpForm.h"

namespace Pendrel {
namespace {

CMimeFile File(EMimeType type, const std::wstring& name, const std::wstring& fileName,
               const std::string& data) {
  CMimeFile file;
  file.Type = type;
  file.Name = name;
  file.FileName = fileName;
  file.Data = data;
  return file;
}

// The boundary named in a multipart header.
std::string BoundaryOf(const std::string& header) {
  const std::string marker = "boundary=\"";
  const std::size_t start = header.find(marker);
  if (start == std::string::npos) return {};
  const std::size_t end = header.find('"', start + marker.size());
  return header.substr(start + marker.size(), end - start - marker.size());
}

// `text` with every occurrence of `from` replaced by `to`.
std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

bool IsWellFormedBoundary(const std::string& boundary) {
  static const std::regex pattern("------------B0[0-9A-F]{22}");
  return std::regex_match(boundary, pattern);
}

// --- URL form -------------------------------------------------------------------------------

CRequest UrlRequest(const std::wstring& command) {
  CRequest request;
  request.Command = command;
  request.CommandAtribute = L"plan";
  request.CommandParams[L"A"] = L"1";
  request.RequestParams[L"LANG"] = L"en";
  return request;
}

TEST(RequestUrl, NamesSessionForOrdinaryCommands) {
  EXPECT_EQ(UrlRequest(L"PING").ToHttpURL(L"srv:8080", L"S1"),
            L"http://srv:8080/PING/S1/A/1?LANG=en");
}

TEST(RequestUrl, NamesAttributeForDocumentCommands) {
  EXPECT_EQ(UrlRequest(L"SDOC").ToHttpURL(L"srv:8080", L"S1"),
            L"http://srv:8080/SDOC/plan/A/1?LANG=en");
  for (const wchar_t* command : {L"REF", L"SREF", L"DOC", L"SDOC", L"SIMPLEX", L"DUPLEX"}) {
    EXPECT_EQ(UrlRequest(command).ToHttpURL(L"", L"S1"),
              std::wstring(command) + L"/plan/A/1?LANG=en");
  }
  // JOB opens a session but its URL names the session.
  EXPECT_EQ(UrlRequest(L"JOB").ToHttpURL(L"", L"S1"), L"JOB/S1/A/1?LANG=en");
}

TEST(RequestUrl, EmptyServerStartsWithCommand) {
  CRequest request;
  request.Command = L"PING";
  EXPECT_EQ(request.ToHttpURL(L"", L"S1"), L"PING/S1");
}

TEST(RequestUrl, LowerCaseSimplexUsesSession) {
  EXPECT_EQ(UrlRequest(L"simplex").ToHttpURL(L"", L"S1"), L"simplex/S1/A/1?LANG=en");
}

TEST(RequestUrl, KeepsKeyCaseAndEscapesNothing) {
  CRequest request;
  request.Command = L"PING";
  request.CommandParams[L"b"] = L"x y";
  request.CommandParams[L"A"] = L"1/2";
  request.RequestParams[L"Zoom"] = L"a&b";
  request.RequestParams[L"LANG"] = L"\u00e9";
  EXPECT_EQ(request.ToHttpURL(L"h", L""), L"http://h/PING//A/1/2/b/x y?LANG=\u00e9&Zoom=a&b");
}

// --- Request header and body ----------------------------------------------------------------

TEST(RequestHttp, NoFilesGiveJsonHeaderAndEmptyBody) {
  CRequest request;
  request.Command = L"PING";
  std::string header = "old header";
  std::string body = "old body";
  request.ToHttpRequestData(header, body);
  EXPECT_EQ(header, "Content-Type: application/json; charset=utf-8\nContent-Disposition: inline");
  EXPECT_EQ(body, "");
}

TEST(RequestHttp, TwoFilesGiveTheMultipartExample) {
  CRequest request;
  request.InputData = {File(Text, L"a", L"a.txt", "hi"),
                       File(Png, L"b", L"b.png", std::string("\x89PNG\r\n\x1a\n", 8))};
  std::string header, body;
  request.ToHttpRequestData(header, body);
  const std::string drawn = BoundaryOf(header);
  ASSERT_TRUE(IsWellFormedBoundary(drawn)) << drawn;
  const std::string example = "------------B01B2C3D4E5F60718293A4B5";
  EXPECT_EQ(ReplaceAll(header, drawn, example), "Content-Type: multipart/mixed; boundary=\"" +
                                                    example + "\"\nContent-Disposition: inline");
  EXPECT_EQ(ReplaceAll(body, drawn, example),
            "--" + example +
                "\r\n"
                "Content-Type: text/plain; name=\"a\"\r\n"
                "Content-Transfer-Encoding: base64\r\n"
                "Content-Disposition: inline; filename=\"a.txt\"\r\n"
                "\r\n"
                "aGk=\r\n"
                "--" +
                example +
                "\r\n"
                "Content-Type: image/png; name=\"b\"\r\n"
                "Content-Transfer-Encoding: base64\r\n"
                "Content-Disposition: inline; filename=\"b.png\"\r\n"
                "\r\n"
                "iVBORw0KGgo=\r\n"
                "--" +
                example + "--\r\n");
}

TEST(RequestHttp, MultipartOmitsEmptyNamesAndEncodesLongDataInLines) {
  CRequest request;
  request.InputData = {File(Binary, L"", L"", std::string(49, 'x')), File(Json, L"", L"", "")};
  std::string header, body;
  request.ToHttpRequestData(header, body);
  const std::string b = BoundaryOf(header);
  std::string xs;
  for (int i = 0; i < 16; ++i) xs += "eHh4";  // "xxx"
  const std::string partHeader =
      "Content-Transfer-Encoding: base64\r\nContent-Disposition: inline\r\n\r\n";
  EXPECT_EQ(body, "--" + b + "\r\nContent-Type: application/octet-stream\r\n" + partHeader + xs +
                      "e\r\nA==\r\n" + "--" + b + "\r\nContent-Type: application/json\r\n" +
                      partHeader + "\r\n" + "--" + b + "--\r\n");
}

// --- One file, of a request or of a response: its bytes alone, described by the header -----

struct SingleFileCase {
  const char* what;
  bool ofResponse;
  CMimeFile file;
  const char* header;
};

void PrintTo(const SingleFileCase& c, std::ostream* out) { *out << c.what; }

class SingleFileHttp : public testing::TestWithParam<SingleFileCase> {};

TEST_P(SingleFileHttp, SendsTheFileBytesUnderItsHeader) {
  const SingleFileCase& c = GetParam();
  std::string header, body;
  if (c.ofResponse) {
    CResponse response;
    response.Data = {c.file};
    response.ToHttpRequestData(header, body);
  } else {
    CRequest request;
    request.InputData = {c.file};
    request.ToHttpRequestData(header, body);
  }
  EXPECT_EQ(header, c.header);
  EXPECT_TRUE(body == c.file.Data);
}

INSTANTIATE_TEST_SUITE_P(
    Files, SingleFileHttp,
    testing::Values(
        SingleFileCase{"RequestCsvFileHasNoCharset", false, File(Csv, L"t", L"t.csv", "a,b\n"),
                       "Content-Type: text/csv; name=\"t\"\nContent-Disposition: inline; "
                       "filename=\"t.csv\""},
        SingleFileCase{"RequestJsonFileHasCharset", false, File(Json, L"", L"", "{}"),
                       "Content-Type: application/json; charset=utf-8\nContent-Disposition: "
                       "inline"},
        SingleFileCase{"RequestFileNamesAreUtf8AndUnescaped", false,
                       File(Pdf, L"r\u00e9\"s", L"a\\b.pdf", std::string("\0%PDF", 5)),
                       "Content-Type: application/pdf; name=\"r\xc3\xa9\"s\"\nContent-Disposition: "
                       "inline; filename=\"a\\b.pdf\""},
        SingleFileCase{"ResponseUnnamedTextFile", true, File(Text, L"", L"", "plain"),
                       "Content-Type: text/plain; charset=utf-8\nContent-Disposition: inline"},
        SingleFileCase{"ResponseCsvFileHasNoCharset", true, File(Csv, L"", L"", "1,2"),
                       "Content-Type: text/csv\nContent-Disposition: inline"}),
    [](const testing::TestParamInfo<SingleFileCase>& info) { return info.param.what; });

// --- Response header and body ---------------------------------------------------------------

TEST(ResponseHttp, NoFilesGiveCommonJsonBody) {
  CResponse response(static_cast<EStatus>(0));
  std::string header, body = "old";
  response.ToHttpRequestData(header, body);
  EXPECT_EQ(header, "Content-Type: application/json; charset=utf-8\nContent-Disposition: inline");
  EXPECT_EQ(body, "{\"status\":0}");
}

TEST(ResponseHttp, SinglePngIsSentAsItsBytesAlone) {
  CResponse response(static_cast<EStatus>(5));
  response.Parameters[L"RESULT"] = L"ok";
  response.Session = L"S1";
  const std::string bytes("\x89PNG\0\x01\xff", 7);
  response.Data = {File(Png, L"plot", L"plot.png", bytes)};
  std::string header, body;
  response.ToHttpRequestData(header, body);
  EXPECT_EQ(header,
            "Content-Type: image/png; name=\"plot\"\nContent-Disposition: inline; "
            "filename=\"plot.png\"");
  EXPECT_EQ(body, bytes);
  EXPECT_EQ(header.find("RESULT"), std::string::npos);
  EXPECT_EQ(header.find("S1"), std::string::npos);
}

TEST(ResponseHttp, TwoFilesGiveTheMultipartExample) {
  CResponse response;
  response.Parameters[L"RESULT"] = L"ok";
  response.Data = {File(Text, L"a", L"a.txt", "hi"), File(Pdf, L"", L"r.pdf", "%PD")};
  response.Data[1].IsAttachment = true;
  std::string header, body;
  response.ToHttpRequestData(header, body);
  const std::string drawn = BoundaryOf(header);
  ASSERT_TRUE(IsWellFormedBoundary(drawn)) << drawn;
  const std::string example = "------------B01A2B3C4D5E6F708192A3B4";
  EXPECT_EQ(ReplaceAll(header, drawn, example),
            "Content-Type: multipart/mixed; boundary=\"------------B01A2B3C4D5E6F708192A3B4\"\n"
            "Content-Disposition: inline");
  EXPECT_EQ(ReplaceAll(body, drawn, example),
            "--------------B01A2B3C4D5E6F708192A3B4\r\nContent-Type: text/plain; "
            "name=\"a\"\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: inline; "
            "filename=\"a.txt\"\r\n\r\naGk=\r\n--------------B01A2B3C4D5E6F708192A3B4\r\n"
            "Content-Type: application/pdf\r\nContent-Transfer-Encoding: "
            "base64\r\nContent-Disposition: inline; filename=\"r.pdf\"\r\n\r\nJVBE\r\n"
            "--------------B01A2B3C4D5E6F708192A3B4--\r\n");
}

TEST(ResponseHttp, TwoFilesStartWithBoundaryAndEndWithClosingDelimiter) {
  CResponse response;
  response.Data = {File(Gif, L"g", L"g.gif", "GIF8"), File(Zip, L"z", L"z.zip", "PK")};
  std::string header, body;
  response.ToHttpRequestData(header, body);
  const std::string b = BoundaryOf(header);
  EXPECT_EQ(body.rfind("--------------B0", 0), 0u);
  const std::string closing = "--" + b + "--\r\n";
  ASSERT_GE(body.size(), closing.size());
  EXPECT_EQ(body.substr(body.size() - closing.size()), closing);
  std::size_t parts = 0;
  for (std::size_t at = body.find("--" + b + "\r\n"); at != std::string::npos;
       at = body.find("--" + b + "\r\n", at + 1)) {
    ++parts;
  }
  EXPECT_EQ(parts, 2u);
}

TEST(ResponseHttp, EmptyFileGivesEmptyBase64Section) {
  CResponse response;
  response.Data = {File(Text, L"e", L"e.txt", ""), File(Text, L"f", L"f.txt", "x")};
  std::string header, body;
  response.ToHttpRequestData(header, body);
  EXPECT_NE(body.find("filename=\"e.txt\"\r\n\r\n\r\n--"), std::string::npos);
}

// --- Boundary -------------------------------------------------------------------------------

TEST(Boundary, HasFixedPrefixAndElevenRandomPairs) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    const std::string boundary = detail::MakeBoundary();
    EXPECT_EQ(boundary.size(), 36u);
    EXPECT_TRUE(IsWellFormedBoundary(boundary)) << boundary;
    seen.insert(boundary);
  }
  EXPECT_EQ(seen.size(), 200u) << "boundaries repeat";
}

TEST(Boundary, LeavesTheHostsRandSequenceAlone) {
  std::srand(12345);
  const int first = std::rand();
  const int second = std::rand();
  std::srand(12345);
  detail::MakeBoundary();
  CRequest request;
  request.InputData = {File(Text, L"a", L"a", "a"), File(Text, L"b", L"b", "b")};
  std::string header, body;
  request.ToHttpRequestData(header, body);
  EXPECT_EQ(std::rand(), first);
  EXPECT_EQ(std::rand(), second);
}

TEST(Boundary, IsSafeFromSeveralThreads) {
  std::vector<std::vector<std::string>> results(4);
  std::vector<std::thread> threads;
  for (auto& result : results) {
    threads.emplace_back([&result] {
      for (int i = 0; i < 500; ++i) result.push_back(detail::MakeBoundary());
    });
  }
  for (auto& thread : threads) thread.join();
  std::set<std::string> all;
  for (const auto& result : results) {
    for (const std::string& boundary : result) {
      EXPECT_TRUE(IsWellFormedBoundary(boundary)) << boundary;
      all.insert(boundary);
    }
  }
  EXPECT_EQ(all.size(), 2000u);
}

}  // namespace
}  // namespace Pendrel
