// AnswerOf: the response's HTTP form as fields and body, for no file, one file and several.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/server/forms/ClientForms.h"
#include "tools/server/forms/HttpForms.h"

namespace {

using namespace std::string_literals;
using PendrelServer::AnswerOf;
using PendrelServer::CHttpAnswer;
using PendrelServerTest::File;
using Fields = std::vector<std::pair<std::string, std::string>>;

TEST(Answer, WithoutFilesIsTheCommonJson) {
  Pendrel::CResponse response(static_cast<Pendrel::EStatus>(0));
  response.Parameters[L"words"] = L"12";
  const CHttpAnswer answer = AnswerOf(response);
  EXPECT_EQ(answer.Fields, (Fields{{"Content-Type", "application/json; charset=utf-8"},
                                   {"Content-Disposition", "inline"}}));
  EXPECT_EQ(answer.Body, response.ToCommonJsonString());
  EXPECT_EQ(answer.Body, "{\"status\":0,\"words\":\"12\"}");
}

TEST(Answer, OneFileIsItsBytes) {
  Pendrel::CResponse response;
  response.Parameters[L"x"] = L"not sent";
  response.Data.push_back(File(Pendrel::Png, L"plot", L"plot.png", "\x89PNG\0\r\n"s));
  const CHttpAnswer answer = AnswerOf(response);
  EXPECT_EQ(answer.Fields, (Fields{{"Content-Type", "image/png; name=\"plot\""},
                                   {"Content-Disposition", "inline; filename=\"plot.png\""}}));
  EXPECT_EQ(answer.Body, "\x89PNG\0\r\n"s);
  EXPECT_EQ(response.Data[0].Data, "\x89PNG\0\r\n"s);  // the const form copies
}

TEST(Answer, OneFileWithoutNamesAndNonAsciiNames) {
  Pendrel::CResponse response;
  response.Data.push_back(File(Pendrel::Text, L"", L"", "hi"));
  EXPECT_EQ(AnswerOf(response).Fields, (Fields{{"Content-Type", "text/plain; charset=utf-8"},
                                               {"Content-Disposition", "inline"}}));
  response.Data[0] = File(Pendrel::Csv, L"отчёт", L"отчёт.csv", "a,b");
  EXPECT_EQ(AnswerOf(response).Fields,
            (Fields{{"Content-Type", "text/csv; name=\"\xD0\xBE\xD1\x82\xD1\x87\xD1\x91\xD1\x82\""},
                    {"Content-Disposition",
                     "inline; filename=\"\xD0\xBE\xD1\x82\xD1\x87\xD1\x91\xD1\x82.csv\""}}));
}

TEST(Answer, OneFileFromAnRvalueMovesTheData) {
  Pendrel::CResponse response;
  response.Data.push_back(File(Pendrel::Zip, L"z", L"z.zip", std::string(1 << 20, 'z')));
  const char* const buffer = response.Data[0].Data.data();
  const CHttpAnswer answer = AnswerOf(std::move(response));
  EXPECT_EQ(answer.Body.data(), buffer);
  EXPECT_EQ(answer.Body.size(), 1u << 20);
  EXPECT_EQ(answer.Fields, (Fields{{"Content-Type", "application/zip; name=\"z\""},
                                   {"Content-Disposition", "inline; filename=\"z.zip\""}}));
}

TEST(Answer, RvalueFormsEqualTheConstForms) {
  for (std::size_t files = 0; files <= 3; ++files) {
    SCOPED_TRACE(files);
    Pendrel::CResponse response(static_cast<Pendrel::EStatus>(2));
    response.Parameters[L"k"] = L"v";
    for (std::size_t i = 0; i < files; ++i) {
      response.Data.push_back(File(Pendrel::Text, L"f", L"f.txt", std::string(i + 1, 'a')));
    }
    const CHttpAnswer copied = AnswerOf(response);
    const CHttpAnswer moved = AnswerOf(Pendrel::CResponse(response));
    if (files < 2) {
      EXPECT_EQ(moved.Fields, copied.Fields);
      EXPECT_EQ(moved.Body, copied.Body);
    } else {
      // Each multipart body has its own boundary; the shape is the same.
      EXPECT_EQ(moved.Body.size(), copied.Body.size());
    }
  }
}

TEST(Answer, SeveralFilesAreAMultipartBodyThatReadsBackAsTheFiles) {
  Pendrel::CResponse response;
  response.Data = {File(Pendrel::Text, L"a", L"a.txt", "hi"),
                   File(Pendrel::Pdf, L"", L"r.pdf", "%PD"),
                   File(Pendrel::Binary, L"bin", L"b.bin", "\0\x01\xFF\r\n--"s),
                   File(Pendrel::Zip, L"", L"", "")};
  const CHttpAnswer answer = AnswerOf(response);
  ASSERT_EQ(answer.Fields.size(), 2u);
  EXPECT_EQ(answer.Fields[0].first, "Content-Type");
  EXPECT_EQ(answer.Fields[0].second.rfind("multipart/mixed; boundary=\"------------B0", 0), 0u)
      << answer.Fields[0].second;
  EXPECT_EQ(answer.Fields[1],
            (std::pair<std::string, std::string>{"Content-Disposition", "inline"}));
  EXPECT_EQ(answer.Body.rfind("--------------B0", 0), 0u);

  // Read back by the request reader, as a client posting it on would be.
  PendrelServer::CHttpRequestParts parts;
  parts.Path = "/PING";
  parts.ContentType = answer.Fields[0].second;
  parts.Body = answer.Body;
  PendrelServer::CReadRequest read;
  ASSERT_TRUE(PendrelServer::ReadRequest(std::move(parts), read)) << read.Problem;
  ASSERT_EQ(read.Request.InputData.size(), response.Data.size());
  for (std::size_t i = 0; i < response.Data.size(); ++i) {
    EXPECT_EQ(read.Request.InputData[i].Type, response.Data[i].Type);
    EXPECT_EQ(read.Request.InputData[i].Name, response.Data[i].Name);
    EXPECT_EQ(read.Request.InputData[i].FileName, response.Data[i].FileName);
    EXPECT_EQ(read.Request.InputData[i].Data, response.Data[i].Data);
  }
}

}  // namespace
