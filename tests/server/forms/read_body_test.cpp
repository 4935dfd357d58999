// Reading the body by its Content-Type: no file, the request document, multipart/mixed,
// multipart/form-data as curl writes it, and the one-file body.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tools/server/forms/HttpForms.h"

namespace {

using namespace std::string_literals;
using PendrelServer::CHttpRequestParts;
using PendrelServer::CReadRequest;
using PendrelServer::ReadRequest;

CHttpRequestParts Post(std::string contentType, std::string body, std::string path = "/PING/S1",
                       std::string query = "") {
  CHttpRequestParts parts;
  parts.Method = "POST";
  parts.Path = std::move(path);
  parts.Query = std::move(query);
  parts.ContentType = std::move(contentType);
  parts.Body = std::move(body);
  return parts;
}

void ExpectFile(const Pendrel::CMimeFile& file, Pendrel::EMimeType type, const std::wstring& name,
                const std::wstring& fileName, const std::string& data) {
  EXPECT_EQ(file.Type, type);
  EXPECT_EQ(file.Name, name);
  EXPECT_EQ(file.FileName, fileName);
  EXPECT_EQ(file.Data, data);
  EXPECT_TRUE(file.IsAttachment);
}

TEST(ReadBody, NoFileForAnEmptyJsonBodyOrNoBodyAtAll) {
  for (const char* type :
       {"application/json; charset=utf-8", "application/json", "Application/JSON", ""}) {
    SCOPED_TRACE(type);
    CReadRequest out;
    ASSERT_TRUE(ReadRequest(Post(type, ""), out)) << out.Problem;
    EXPECT_TRUE(out.Request.InputData.empty());
  }
}

TEST(ReadBody, AJsonBodyIsOneJsonFile) {
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Post("application/json; charset=utf-8", "{\"a\":1}"), out));
  ASSERT_EQ(out.Request.InputData.size(), 1u);
  ExpectFile(out.Request.InputData[0], Pendrel::Json, L"", L"", "{\"a\":1}");
}

TEST(ReadBody, AnEmptyJsonFileWithANameIsStillAFile) {
  CHttpRequestParts parts = Post("application/json; charset=utf-8; name=\"empty\"", "");
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(std::move(parts), out)) << out.Problem;
  ASSERT_EQ(out.Request.InputData.size(), 1u);
  ExpectFile(out.Request.InputData[0], Pendrel::Json, L"empty", L"", "");
}

TEST(ReadBody, ABodyWithoutTypeIsOneBinaryFile) {
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Post("", "\x01\x02"s), out)) << out.Problem;
  ASSERT_EQ(out.Request.InputData.size(), 1u);
  ExpectFile(out.Request.InputData[0], Pendrel::Binary, L"", L"", "\x01\x02");
}

TEST(ReadBody, OneFileTakesTypeNameAndFileNameFromTheFields) {
  const std::string png = "\x89PNG\r\n\x1a\n\0\0"s;
  CHttpRequestParts parts = Post("image/png; name=\"plot\"", png);
  parts.ContentDisposition = "inline; filename=\"plot.png\"";
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(std::move(parts), out)) << out.Problem;
  ASSERT_EQ(out.Request.InputData.size(), 1u);
  ExpectFile(out.Request.InputData[0], Pendrel::Png, L"plot", L"plot.png", png);
}

TEST(ReadBody, OneFileOfEachKnownTypeAndOfUnknownTypes) {
  const std::pair<const char*, Pendrel::EMimeType> cases[] = {
      {"text/plain; charset=utf-8", Pendrel::Text},
      {"TEXT/CSV", Pendrel::Csv},
      {"application/pdf", Pendrel::Pdf},
      {"application/zip", Pendrel::Zip},
      {"image/svg+xml", Pendrel::Svg},
      {"image/jpeg", Pendrel::Jpeg},
      {"image/gif", Pendrel::Gif},
      {"application/octet-stream", Pendrel::Binary},
      {"application/x-www-form-urlencoded", Pendrel::Binary},
      {"video/mp4", Pendrel::Binary},
      {"nonsense", Pendrel::Binary},
  };
  for (const auto& [type, expected] : cases) {
    SCOPED_TRACE(type);
    CReadRequest out;
    ASSERT_TRUE(ReadRequest(Post(type, "x"), out)) << out.Problem;
    ASSERT_EQ(out.Request.InputData.size(), 1u);
    EXPECT_EQ(out.Request.InputData[0].Type, expected);
  }
}

TEST(ReadBody, OneFileReadsNonAsciiAndQuotedNamesAsTheLibraryWritesThem) {
  CHttpRequestParts parts = Post("text/plain; charset=utf-8; name=\"say \"hi\" \xD0\xBE\"", "hi");
  parts.ContentDisposition = "inline; filename=\"C:\\dir\\say \"hi\" \xD0\xBE.txt\"";
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(std::move(parts), out)) << out.Problem;
  ASSERT_EQ(out.Request.InputData.size(), 1u);
  ExpectFile(out.Request.InputData[0], Pendrel::Text, L"say \"hi\" о", L"C:\\dir\\say \"hi\" о.txt",
             "hi");
}

TEST(ReadBody, OneFileReadsAnExtendedFileName) {
  CHttpRequestParts parts = Post("application/pdf", "%PDF");
  parts.ContentDisposition =
      "attachment; filename=\"resume.pdf\"; filename*=UTF-8''r%C3%A9sum%C3%A9.pdf";
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(std::move(parts), out)) << out.Problem;
  ASSERT_EQ(out.Request.InputData.size(), 1u);
  ExpectFile(out.Request.InputData[0], Pendrel::Pdf, L"", L"résumé.pdf", "%PDF");
}

TEST(ReadBody, OneFileBodyIsMovedNotCopied) {
  std::string body(1 << 20, 'x');
  const char* const buffer = body.data();
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Post("application/zip", std::move(body)), out)) << out.Problem;
  ASSERT_EQ(out.Request.InputData.size(), 1u);
  EXPECT_EQ(out.Request.InputData[0].Data.data(), buffer);
  EXPECT_EQ(out.Request.InputData[0].Data.size(), 1u << 20);
}

// What curl 7.88 sends for
//   curl -F 'lang=ru ü' -F file=@a.txt -F 'img=@pl"ot.png'
//        -F 'doc=@a.txt;filename=отчёт.txt;type=application/pdf' -F 'note=x' …/PING/
const std::string kCurlBoundary = "------------------------672d1dcd7b3ff224";
const std::string kCurlForm =
    "--------------------------672d1dcd7b3ff224\r\n"
    "Content-Disposition: form-data; name=\"lang\"\r\n"
    "\r\n"
    "ru \xc3\xbc\r\n"
    "--------------------------672d1dcd7b3ff224\r\n"
    "Content-Disposition: form-data; name=\"file\"; filename=\"a.txt\"\r\n"
    "Content-Type: text/plain\r\n"
    "\r\n"
    "hello\nworld\r\n"
    "--------------------------672d1dcd7b3ff224\r\n"
    "Content-Disposition: form-data; name=\"img\"; filename=\"pl%22ot.png\"\r\n"
    "Content-Type: image/png\r\n"
    "\r\n"
    "\x89PNG\r\n\x1a\n\x00\x01\r\n"
    "--------------------------672d1dcd7b3ff224\r\n"
    "Content-Disposition: form-data; name=\"doc\"; "
    "filename=\"\xd0\xbe\xd1\x82\xd1\x87\xd1\x91\xd1\x82.txt\"\r\n"
    "Content-Type: application/pdf\r\n"
    "\r\n"
    "hello\nworld\r\n"
    "--------------------------672d1dcd7b3ff224\r\n"
    "Content-Disposition: form-data; name=\"note\"\r\n"
    "\r\n"
    "x\r\n"
    "--------------------------672d1dcd7b3ff224--\r\n"s;

TEST(ReadBody, FormDataAsCurlWritesIt) {
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Post("multipart/form-data; boundary=" + kCurlBoundary, kCurlForm,
                               "/PING/", "note=from-query"),
                          out))
      << out.Problem;
  EXPECT_EQ(out.Request.Command, L"PING");
  // Fields become request parameters, after the query's: its "note" wins.
  const Pendrel::CKeyValueMap expected{{L"LANG", L"ru ü"}, {L"NOTE", L"from-query"}};
  EXPECT_EQ(out.Request.RequestParams, expected);
  ASSERT_EQ(out.Request.InputData.size(), 3u);
  ExpectFile(out.Request.InputData[0], Pendrel::Text, L"a", L"a.txt", "hello\nworld");
  ExpectFile(out.Request.InputData[1], Pendrel::Png, L"pl\"ot", L"pl\"ot.png",
             "\x89PNG\r\n\x1a\n\x00\x01"s);
  ExpectFile(out.Request.InputData[2], Pendrel::Pdf, L"отчёт", L"отчёт.txt", "hello\nworld");
}

TEST(ReadBody, FormDataFileTypeFallsBackToTheExtension) {
  const std::string body =
      "--b\r\n"
      "Content-Disposition: form-data; name=\"f\"; filename=\"scan.jpg\"\r\n"
      "Content-Type: application/octet-stream\r\n\r\nJ\r\n"
      "--b\r\n"
      "Content-Disposition: form-data; name=\"g\"; filename=\"data.bin\"\r\n\r\nB\r\n"
      "--b\r\n"
      "Content-Disposition: form-data; name=\"h\"; filename=\"README\"\r\n"
      "Content-Type: text/csv\r\n\r\nC\r\n"
      "--b--\r\n";
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Post("multipart/form-data; boundary=b", body), out)) << out.Problem;
  ASSERT_EQ(out.Request.InputData.size(), 3u);
  ExpectFile(out.Request.InputData[0], Pendrel::Jpeg, L"scan", L"scan.jpg", "J");
  ExpectFile(out.Request.InputData[1], Pendrel::Binary, L"data", L"data.bin", "B");
  ExpectFile(out.Request.InputData[2], Pendrel::Csv, L"README", L"README", "C");
}

TEST(ReadBody, FormDataSkipsAFileInputLeftEmpty) {
  const std::string body =
      "--b\r\n"
      "Content-Disposition: form-data; name=\"f\"; filename=\"\"\r\n"
      "Content-Type: application/octet-stream\r\n\r\n\r\n"
      "--b\r\n"
      "Content-Disposition: form-data; name=\"Mode\"\r\n\r\nfast\r\n"
      "--b--\r\n";
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Post("multipart/form-data; boundary=\"b\"", body), out)) << out.Problem;
  EXPECT_TRUE(out.Request.InputData.empty());
  EXPECT_EQ(out.Request.GetRequestValue(L"mode"), L"fast");
}

TEST(ReadBody, MultipartMixedWithBinaryPartsBareLineEndsPreambleAndEpilogue) {
  const std::string body =
      "This is the preamble.\n"
      "--XyZ\n"
      "Content-Type: application/zip; name=\"z\"\n"
      "Content-Transfer-Encoding: binary\n"
      "Content-Disposition: inline;\n"
      "\tfilename=\"z.zip\"\n"
      "\n"
      "PK\x03\x04\0\r\n--XyZ-not-a-boundary\n"
      "--XyZ  \n"
      "content-type: TEXT/PLAIN\n"
      "\n"
      "plain\n"
      "--XyZ--\n"
      "epilogue\n"s;
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Post("Multipart/Mixed; boundary=XyZ", body), out)) << out.Problem;
  ASSERT_EQ(out.Request.InputData.size(), 2u);
  ExpectFile(out.Request.InputData[0], Pendrel::Zip, L"z", L"z.zip",
             "PK\x03\x04\0\r\n--XyZ-not-a-boundary"s);
  ExpectFile(out.Request.InputData[1], Pendrel::Text, L"", L"", "plain");
}

TEST(ReadBody, MultipartMixedPartWithoutTypeIsText) {
  const std::string body =
      "--b\r\n\r\nabc\r\n--b\r\nContent-Transfer-Encoding: 8bit\r\n\r\n\r\n--b--";
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Post("multipart/mixed; boundary=b", body), out)) << out.Problem;
  ASSERT_EQ(out.Request.InputData.size(), 2u);
  ExpectFile(out.Request.InputData[0], Pendrel::Text, L"", L"", "abc");
  ExpectFile(out.Request.InputData[1], Pendrel::Text, L"", L"", "");
}

TEST(ReadBody, MultipartWithoutPartsGivesNoFile) {
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Post("multipart/mixed; boundary=b", "--b--\r\n"), out)) << out.Problem;
  EXPECT_TRUE(out.Request.InputData.empty());
}

TEST(ReadBody, RequestDocumentIsTheWholeRequest) {
  Pendrel::CRequest request;
  request.Command = L"SDOC";
  request.CommandAtribute = L"plan";
  request.CommandParams[L"PAGE"] = L"2";
  request.RequestParams[L"LANG"] = L"en";
  Pendrel::CMimeFile file;
  file.Name = L"notes";
  file.FileName = L"notes.txt";
  file.Data = "hi";
  request.InputData.push_back(file);

  for (const char* path : {"", "/", "/SDOC", "/SDOC/plan"}) {
    SCOPED_TRACE(path);
    CReadRequest out;
    ASSERT_TRUE(ReadRequest(
        Post("application/vnd.pendrel.request+json", request.ToJsonString(), path), out))
        << out.Problem;
    EXPECT_EQ(out.Request.ToJsonString(), request.ToJsonString());
    EXPECT_EQ(out.SessionKey, L"");
  }
}

TEST(ReadBody, RequestDocumentTakesTheSessionKeyFromThePath) {
  Pendrel::CRequest request;
  request.Command = L"PING";
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Post("application/vnd.pendrel.request+json; charset=utf-8",
                               request.ToJsonString(), "/PING/K1"),
                          out))
      << out.Problem;
  EXPECT_EQ(out.Request.Command, L"PING");
  EXPECT_EQ(out.SessionKey, L"K1");
}

struct BadBody {
  const char* name;
  std::string contentType;
  std::string body;
  std::string path;
  std::string query;
  const char* problem;
};

TEST(ReadBody, RefusesBodiesThatCannotBeReadWithAReason) {
  const std::string ping = "{\"Command\":\"PING\"}";
  const BadBody cases[] = {
      {"no boundary", "multipart/mixed", "--b--", "/PING/S", "", "no boundary parameter"},
      {"empty boundary", "multipart/form-data; boundary=\"\"", "--b--", "/PING/S", "",
       "no boundary parameter"},
      {"no boundary line", "multipart/mixed; boundary=b", "abc", "/PING/S", "", "no boundary line"},
      {"no closing line", "multipart/mixed; boundary=b", "--b\r\n\r\nabc", "/PING/S", "",
       "before its closing boundary"},
      {"header without end", "multipart/mixed; boundary=b", "--b\r\nContent-Type: a/b", "/PING/S",
       "", "blank line"},
      {"header not a field", "multipart/mixed; boundary=b", "--b\r\nnot a field\r\n\r\nx\r\n--b--",
       "/PING/S", "", "not a field"},
      {"continuation first", "multipart/mixed; boundary=b", "--b\r\n folded\r\n\r\nx\r\n--b--",
       "/PING/S", "", "continuation"},
      {"bad base64", "multipart/mixed; boundary=b",
       "--b\r\nContent-Transfer-Encoding: base64\r\n\r\naGk*\r\n--b--", "/PING/S", "", "base64"},
      {"unknown encoding", "multipart/mixed; boundary=b",
       "--b\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\nx\r\n--b--", "/PING/S", "",
       "Content-Transfer-Encoding"},
      {"unterminated quote", "text/plain; name=\"abc", "x", "/PING/S", "", "closing quote"},
      {"bad name", "text/plain; name=\"\xFF\"", "x", "/PING/S", "", "not valid UTF-8"},
      {"bad extended", "text/plain; name*=koi8-r''abc", "x", "/PING/S", "", "extended value"},
      {"part name", "multipart/mixed; boundary=b",
       "--b\r\nContent-Type: text/plain; name=\"\xC3\"\r\n\r\nx\r\n--b--", "/PING/S", "",
       "not valid UTF-8"},
      {"form part without disposition", "multipart/form-data; boundary=b",
       "--b\r\nContent-Type: text/plain\r\n\r\nx\r\n--b--", "/PING/S", "",
       "no Content-Disposition"},
      {"form part without name", "multipart/form-data; boundary=b",
       "--b\r\nContent-Disposition: form-data\r\n\r\nx\r\n--b--", "/PING/S", "", "no \"name\""},
      {"form value not UTF-8", "multipart/form-data; boundary=b",
       "--b\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n\xC0\r\n--b--", "/PING/S", "",
       "not valid UTF-8"},
      {"form file name not UTF-8", "multipart/form-data; boundary=b",
       "--b\r\nContent-Disposition: form-data; name=\"a\"; filename=\"\xE2\x82\"\r\n\r\nx\r\n--b--",
       "/PING/S", "", "not valid UTF-8"},
      {"document without command", "application/vnd.pendrel.request+json", "{}", "", "",
       "names no command"},
      {"document not JSON", "application/vnd.pendrel.request+json", "not json", "", "",
       "names no command"},
      {"document and query", "application/vnd.pendrel.request+json", ping, "/PING/S", "a=1",
       "query"},
      {"document and path parameters", "application/vnd.pendrel.request+json", ping, "/PING/S/A/1",
       "", "command parameters"},
      {"document and another command", "application/vnd.pendrel.request+json", ping, "/STATS/S", "",
       "another command"},
      {"document and another attribute", "application/vnd.pendrel.request+json",
       "{\"Command\":\"DOC\",\"CommandAtribute\":\"a\"}", "/DOC/b", "",
       "another command attribute"},
      {"document with a bad path", "application/vnd.pendrel.request+json", ping, "/PING/%zz", "",
       "hexadecimal"},
  };
  for (const BadBody& c : cases) {
    SCOPED_TRACE(c.name);
    CReadRequest out;
    EXPECT_FALSE(ReadRequest(Post(c.contentType, c.body, c.path, c.query), out));
    EXPECT_NE(out.Problem.find(c.problem), std::string::npos) << out.Problem;
  }
}

TEST(ReadBody, RefusesTooManyParts) {
  std::string body;
  for (int i = 0; i <= 10000; ++i) body += "--b\r\n\r\n\r\n";
  body += "--b--\r\n";
  CReadRequest out;
  EXPECT_FALSE(ReadRequest(Post("multipart/mixed; boundary=b", body), out));
  EXPECT_NE(out.Problem.find("more than 10000 parts"), std::string::npos) << out.Problem;
}

}  // namespace
