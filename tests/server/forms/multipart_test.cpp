// The multipart reader: parts, their fields and their content as views into the body.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/server/forms/detail/Multipart.h"

namespace {

using namespace std::string_literals;
using PendrelServer::detail::CMultipartPart;
using PendrelServer::detail::ReadMultipart;

struct Read {
  bool ok;
  std::vector<std::string> contents;
  std::vector<std::vector<std::pair<std::string, std::string>>> fields;
  std::string problem;
};

Read ReadAll(std::string_view body, std::string_view boundary) {
  Read read;
  read.ok = ReadMultipart(
      body, boundary,
      [&](CMultipartPart& part, std::string&) {
        // Content is a view into the body.
        EXPECT_TRUE(part.Content.empty() ||
                    (part.Content.data() >= body.data() &&
                     part.Content.data() + part.Content.size() <= body.data() + body.size()));
        read.contents.emplace_back(part.Content);
        read.fields.push_back(part.Fields);
        return true;
      },
      read.problem);
  return read;
}

TEST(Multipart, ReadsPartsWithCrlfOrLf) {
  const Read crlf = ReadAll("--b\r\nA: 1\r\nB:2\r\n\r\nx\r\n--b\r\n\r\ny\r\n--b--\r\n", "b");
  ASSERT_TRUE(crlf.ok) << crlf.problem;
  EXPECT_EQ(crlf.contents, (std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(crlf.fields[0],
            (std::vector<std::pair<std::string, std::string>>{{"a", "1"}, {"b", "2"}}));
  EXPECT_TRUE(crlf.fields[1].empty());

  const Read lf = ReadAll("--b\nA: 1\n\nx\n--b\n\ny\n--b--", "b");
  ASSERT_TRUE(lf.ok) << lf.problem;
  EXPECT_EQ(lf.contents, (std::vector<std::string>{"x", "y"}));
}

TEST(Multipart, KeepsLineEndsAndBoundaryLookalikesInsideContent) {
  const std::string body = "--b\r\n\r\n\r\n\r\n--bb\r\n--b-\r\n x--b\r\n\0\r\n--b--"s;
  const Read read = ReadAll(body, "b");
  ASSERT_TRUE(read.ok) << read.problem;
  EXPECT_EQ(read.contents, (std::vector<std::string>{"\r\n\r\n--bb\r\n--b-\r\n x--b\r\n\0"s}));
}

TEST(Multipart, EmptyContentRightAfterTheBlankLine) {
  const Read read = ReadAll("--b\r\nA: 1\r\n\r\n\r\n--b\r\n\r\n--b--", "b");
  ASSERT_TRUE(read.ok) << read.problem;
  EXPECT_EQ(read.contents, (std::vector<std::string>{"", ""}));
}

TEST(Multipart, UnfoldsContinuationLines) {
  const Read read = ReadAll("--b\r\nA: one\r\n  two\r\n\tthree\r\n\r\nx\r\n--b--", "b");
  ASSERT_TRUE(read.ok) << read.problem;
  EXPECT_EQ(read.fields[0][0].second, "one two three");
}

TEST(Multipart, StopsWhenThePartHandlerRefuses) {
  std::string problem;
  int calls = 0;
  EXPECT_FALSE(ReadMultipart(
      "--b\r\n\r\nx\r\n--b\r\n\r\ny\r\n--b--", "b",
      [&](CMultipartPart&, std::string& partProblem) {
        ++calls;
        partProblem = "refused";
        return false;
      },
      problem));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(problem, "refused");
}

TEST(Multipart, RefusesBrokenBodies) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "no boundary line"},
      {"--bx\r\n", "no boundary line"},
      {"--b", "no boundary line"},
      {"--b\r\n\r\nx", "closing boundary"},
      {"--b\r\n\r\nx\r\n--b", "closing boundary"},
      {"--b\r\nA: 1", "blank line"},
      {"--b\r\n" + std::string(20000, 'a') + ": x\r\n\r\n--b--", "exceed"},
  };
  for (const auto& [body, problem] : cases) {
    SCOPED_TRACE(body.substr(0, 40));
    const Read read = ReadAll(body, "b");
    EXPECT_FALSE(read.ok);
    EXPECT_NE(read.problem.find(problem), std::string::npos) << read.problem;
  }
  std::string problem;
  EXPECT_FALSE(ReadMultipart(
      "--\r\n--", "", [](CMultipartPart&, std::string&) { return true; }, problem));
}

}  // namespace
