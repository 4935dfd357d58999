// The library's own HTTP form read back: many requests are written with ToHttpURL (under a
// mount) and ToHttpRequestData, cut into parts as the server does, and read into a request
// equal to the original, field by field.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/server/forms/ClientForms.h"
#include "tools/server/forms/HttpForms.h"

namespace {

using PendrelServer::CReadRequest;
using PendrelServer::ReadRequest;
using PendrelServerTest::ComponentTarget;
using PendrelServerTest::File;
using PendrelServerTest::PartsOf;
using PendrelServerTest::ServerParts;

bool IsAttributeCommand(const std::wstring& command) {
  for (const wchar_t* c : {L"REF", L"SREF", L"DOC", L"SDOC", L"SIMPLEX", L"DUPLEX"}) {
    if (command == c) return true;
  }
  return false;
}

std::string RandomBytes(std::size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(generator());
  return bytes;
}

// `read` equals what `original` sent with `session`, field by field.
void ExpectSameRequest(const Pendrel::CRequest& original, const std::wstring& session,
                       const CReadRequest& read) {
  const bool attribute = IsAttributeCommand(original.Command);
  EXPECT_EQ(read.Request.Command, original.Command);
  // The URL carries either the attribute or the session, never both.
  EXPECT_EQ(read.Request.CommandAtribute, attribute ? original.CommandAtribute : L"");
  EXPECT_EQ(read.SessionKey, attribute ? L"" : session);
  EXPECT_EQ(read.Request.CommandParams, original.CommandParams);
  EXPECT_EQ(read.Request.RequestParams, original.RequestParams);
  ASSERT_EQ(read.Request.InputData.size(), original.InputData.size());
  for (std::size_t i = 0; i < original.InputData.size(); ++i) {
    SCOPED_TRACE("file " + std::to_string(i));
    const Pendrel::CMimeFile& want = original.InputData[i];
    const Pendrel::CMimeFile& got = read.Request.InputData[i];
    EXPECT_EQ(got.Type, want.Type);
    EXPECT_EQ(got.Name, want.Name);
    EXPECT_EQ(got.FileName, want.FileName);
    EXPECT_EQ(got.Data, want.Data);
    EXPECT_EQ(got.IsAttachment, want.IsAttachment);
  }
}

// Commands, sessions, parameters and files to combine. Names and values hold non-ASCII text
// and the reserved characters that keep their place in a URL that ToHttpURL writes
// unescaped: a path segment may hold anything but "/" and "?", a query key anything but "&"
// and "=", a query value anything but "&" ("#" and "%" are escaped by the client).
const std::vector<std::wstring> kCommands = {L"PING", L"JOB",     L"SDOC",   L"REF",
                                             L"DOC",  L"SIMPLEX", L"DUPLEX", L"Статистика"};
const std::vector<std::wstring> kSessions = {L"", L"S1", L"сессия 1", L"k=v;x@y"};

std::vector<Pendrel::CKeyValueMap> CommandParamSets() {
  return {
      {},
      {{L"PAGE", L"3"}},
      {{L"A", L"1"}, {L"B", L""}, {L"ЯЗЫК", L"русский текст"}, {L"Z", L"a=b&c d+e#f%g\U0001F600"}},
  };
}

std::vector<Pendrel::CKeyValueMap> RequestParamSets() {
  return {
      {},
      {{L"LANG", L"en"}},
      {{L"TIMEOUT", L"30"}, {L"ТЕКСТ", L"привет, мир"}, {L"Q", L"a=b/c?d+e #%25"}, {L"", L"empty"}},
  };
}

std::vector<std::vector<Pendrel::CMimeFile>> FileSets() {
  return {
      {},
      {File(Pendrel::Text, L"notes", L"notes.txt", "hi\r\nthere")},
      {File(Pendrel::Png, L"plot", L"plot.png", RandomBytes(70000, 1))},
      {File(Pendrel::Csv, L"", L"", "a,b\n1,2\n")},
      {File(Pendrel::Binary, L"отчёт \"q\"", L"отчёт \"q\" \U0001F600.bin", RandomBytes(3, 2))},
      {File(Pendrel::Pdf, L"", L"r.pdf", "")},
      {File(Pendrel::Text, L"a", L"a.txt", "hi"), File(Pendrel::Pdf, L"", L"r.pdf", "%PD")},
      {File(Pendrel::Json, L"data", L"data.json", "{\"k\":[1,2]}"),
       File(Pendrel::Zip, L"", L"", ""),
       File(Pendrel::Jpeg, L"фото", L"фото.jpg", RandomBytes(49, 3)),
       File(Pendrel::Gif, L"g", L"g.gif", RandomBytes(48, 4)),
       File(Pendrel::Svg, L"s", L"C:\\dir\\s.svg", "<svg/>"),
       File(Pendrel::Binary, L"big", L"big.bin", RandomBytes(300000, 5))},
  };
}

TEST(RoundTrip, EveryCombinationComesBackEqual) {
  const auto commandParams = CommandParamSets();
  const auto requestParams = RequestParamSets();
  const auto files = FileSets();
  int count = 0;
  for (const std::wstring& command : kCommands) {
    for (const std::wstring& session : kSessions) {
      for (std::size_t c = 0; c < commandParams.size(); ++c) {
        for (std::size_t r = 0; r < requestParams.size(); ++r) {
          for (std::size_t f = 0; f < files.size(); ++f) {
            Pendrel::CRequest request;
            request.Command = command;
            request.CommandAtribute = L"док " + std::to_wstring(f);
            request.CommandParams = commandParams[c];
            request.RequestParams = requestParams[r];
            request.InputData = files[f];
            SCOPED_TRACE(::testing::Message() << "command " << count << " c" << c << " r" << r
                                              << " f" << f << " session " << session.size());
            CReadRequest read;
            ASSERT_TRUE(ReadRequest(PartsOf(request, session), read)) << read.Problem;
            ExpectSameRequest(request, session, read);
            ++count;
          }
        }
      }
    }
  }
  EXPECT_EQ(count, 8 * 4 * 3 * 3 * 8);
}

TEST(RoundTrip, ComponentsEncodedOneByOneCarryEveryCharacter) {
  Pendrel::CRequest request;
  request.Command = L"PING/?&=#%";
  request.CommandParams = {{L"a/b?c", L"d/e?f#g%h"}, {L"ключ", L"x+y z"}};
  request.RequestParams = {{L"K&=?", L"v&w=x?y#z%"}, {L"ЮНИКОД", L"\U0001F600"}};
  request.InputData = {File(Pendrel::Text, L"t", L"t.txt", "text")};
  for (const std::wstring session : {L"", L"s/1?&", L"сессия"}) {
    std::string header;
    std::string body;
    request.ToHttpRequestData(header, body);
    CReadRequest read;
    ASSERT_TRUE(ReadRequest(ServerParts(ComponentTarget(request, session), header, body), read))
        << read.Problem;
    ExpectSameRequest(request, session, read);
  }
}

TEST(RoundTrip, GetWithoutBodyReadsLikePost) {
  Pendrel::CRequest request;
  request.Command = L"STATS";
  request.RequestParams = {{L"LANG", L"ru"}};
  CReadRequest read;
  ASSERT_TRUE(
      ReadRequest(ServerParts(ComponentTarget(request, L"K"), "", std::string(), "GET"), read))
      << read.Problem;
  ExpectSameRequest(request, L"K", read);
}

// The one form that cannot come back: a single JSON file with no name, no file name and no
// data is written exactly as a request without files.
TEST(RoundTrip, AnEmptyNamelessJsonFileReadsAsNoFile) {
  Pendrel::CRequest request;
  request.Command = L"PING";
  request.InputData = {File(Pendrel::Json, L"", L"", "")};
  CReadRequest read;
  ASSERT_TRUE(ReadRequest(PartsOf(request, L"S"), read)) << read.Problem;
  EXPECT_TRUE(read.Request.InputData.empty());
}

}  // namespace
