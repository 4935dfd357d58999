#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <utility>

#include "message/CResponse.h"
#include "tests/support/RecordChecks.h"

namespace Pendrel {
namespace {

constexpr EStatus Status(int value) { return static_cast<EStatus>(value); }

using ParamMap = CKeyValueMap;
using pendrel_test::NumbersOf;
using pendrel_test::ProgressNumbers;
using pendrel_test::SetProgress;

CMimeFile JsonFile(std::string content, EMimeType type = Json) {
  CMimeFile file;
  file.Type = type;
  file.FileName = L"response.json";
  file.Name = L"response";
  file.Data = std::move(content);
  return file;
}

// A response whose only file holds `content`.
CResponse WithFile(std::string content, EMimeType type = Json) {
  CResponse response(Status(9));
  response.Session = L"before";
  response.Parameters[L"kept"] = L"yes";
  response.Data.push_back(JsonFile(std::move(content), type));
  return response;
}

void ExpectUnchanged(const CResponse& response, std::size_t files) {
  EXPECT_EQ(response.Status, Status(9));
  EXPECT_EQ(response.Session, L"before");
  EXPECT_EQ(response.Parameters, (ParamMap{{L"kept", L"yes"}}));
  EXPECT_FALSE(response.Progress.IsSet);
  EXPECT_EQ(response.Data.size(), files);
}

TEST(StdResponseFile, UnpacksTheExample) {
  CResponse response = WithFile(
      R"({"status":0,"session":"S-17","phase":{"pos":2,"total":5},)"
      R"("phaseProgress":{"pos":40,"total":100},)"
      R"("taskProgress":{"pos":240,"total":500,"time":12},"RESULT":"ok","pages":7,"note":null})");
  response.ParseStdResponseFromFileData();
  EXPECT_EQ(response.Status, Status(0));
  EXPECT_EQ(response.Session, L"S-17");
  EXPECT_TRUE(response.Progress.IsSet);
  EXPECT_EQ(NumbersOf(response.Progress), (ProgressNumbers{2, 5, 40, 100, 240, 500, 12}));
  EXPECT_EQ(
      response.Parameters,
      (ParamMap{{L"RESULT", L"ok"}, {L"note", L"null"}, {L"pages", L"7"}, {L"kept", L"yes"}}));
  EXPECT_TRUE(response.Data.empty());
}

TEST(StdResponseFile, LeavesTwoFilesUnchanged) {
  CResponse response = WithFile(R"({"status":1})");
  response.Data.push_back(JsonFile(R"({"status":1})"));
  response.ParseStdResponseFromFileData();
  ExpectUnchanged(response, 2);
}

TEST(StdResponseFile, LeavesATextFileUnchanged) {
  CResponse response = WithFile(R"({"status":1})", Text);
  response.ParseStdResponseFromFileData();
  ExpectUnchanged(response, 1);
}

TEST(StdResponseFile, LeavesAResponseWithoutFilesUnchanged) {
  CResponse response(Status(9));
  response.Session = L"before";
  response.Parameters[L"kept"] = L"yes";
  response.ParseStdResponseFromFileData();
  ExpectUnchanged(response, 0);
}

// A single JSON file that is not a standard response stays where it is, untouched.
struct NotStandardCase {
  const char* what;
  const char* content;
};

void PrintTo(const NotStandardCase& c, std::ostream* out) { *out << c.what; }

class StdResponseFileNotStandard : public testing::TestWithParam<NotStandardCase> {};

TEST_P(StdResponseFileNotStandard, StaysInPlace) {
  CResponse response = WithFile(GetParam().content);
  response.ParseStdResponseFromFileData();
  ExpectUnchanged(response, 1);
}

INSTANTIATE_TEST_SUITE_P(Contents, StdResponseFileNotStandard,
                         testing::Values(NotStandardCase{"WithoutStatus", R"({"result":"ok"})"},
                                         NotStandardCase{"WithMisspelledStatus", R"({"Status":1})"},
                                         NotStandardCase{"NotJson", R"({"status":1,])"},
                                         NotStandardCase{"ArrayRoot", R"([{"status":1}])"}),
                         [](const testing::TestParamInfo<NotStandardCase>& info) {
                           return info.param.what;
                         });

TEST(StdResponseFile, StatusAloneResetsSessionAndProgress) {
  CResponse response = WithFile(R"({"status":1})");
  response.Progress.IsSet = true;
  response.ParseStdResponseFromFileData();
  EXPECT_EQ(response.Status, Status(1));
  EXPECT_EQ(response.Session, L"");
  EXPECT_FALSE(response.Progress.IsSet);
  EXPECT_EQ(response.Parameters, (ParamMap{{L"kept", L"yes"}}));
  EXPECT_TRUE(response.Data.empty());
}

TEST(StdResponseFile, MemberOrderMattersOnlyBetweenDuplicates) {
  CResponse response = WithFile(R"({"session":"A","status":2})");
  response.ParseStdResponseFromFileData();
  EXPECT_EQ(response.Session, L"A");
  EXPECT_EQ(response.Status, Status(2));
}

TEST(StdResponseFile, LaterDuplicateWins) {
  CResponse response = WithFile(R"({"status":1,"status":4,"kept":"no","x":"1","x":"2"})");
  response.ParseStdResponseFromFileData();
  EXPECT_EQ(response.Status, Status(4));
  EXPECT_EQ(response.Parameters, (ParamMap{{L"kept", L"no"}, {L"x", L"2"}}));
}

TEST(StdResponseFile, PhaseAloneLeavesTheOtherNumbers) {
  CResponse response = WithFile(R"({"status":1,"phase":{"pos":1,"total":2}})");
  response.Progress = SetProgress({0, 0, 11, 12, 13, 14, 15});
  response.Progress.IsSet = false;
  response.ParseStdResponseFromFileData();
  EXPECT_TRUE(response.Progress.IsSet);
  EXPECT_EQ(NumbersOf(response.Progress), (ProgressNumbers{1, 2, 11, 12, 13, 14, 15}));
}

TEST(StdResponseFile, ProgressMemberThatIsNotAnObjectReadsZeros) {
  CResponse response = WithFile(R"({"status":1,"taskProgress":"soon"})");
  response.Progress.TaskProgressPos = 13;
  response.ParseStdResponseFromFileData();
  EXPECT_TRUE(response.Progress.IsSet);
  EXPECT_EQ(response.Progress.TaskProgressPos, 0);
  EXPECT_EQ(response.Progress.TaskProgressTotal, 0);
  EXPECT_EQ(response.Progress.TaskProgressTime, 0);
}

TEST(StdResponseFile, ReadsValuesLeniently) {
  CResponse response =
      WithFile(R"({"status":"5","session":{"a":1},"list":[1],"flag":false,"num":-1.5})");
  response.ParseStdResponseFromFileData();
  EXPECT_EQ(response.Status, Status(0));
  EXPECT_EQ(response.Session, L"");
  EXPECT_EQ(response.Parameters,
            (ParamMap{{L"kept", L"yes"}, {L"list", L""}, {L"flag", L"false"}, {L"num", L"-1.5"}}));
}

TEST(StdResponseFile, ConvertsKeysAndValuesFromUtf8) {
  CResponse response = WithFile("{\"status\":0,\"caf\xC3\xA9\":\"\xE2\x82\xAC\",\"session\":null}");
  response.ParseStdResponseFromFileData();
  EXPECT_EQ(response.Session, L"null");
  EXPECT_EQ(response.Parameters.at(L"caf\u00E9"), L"\u20AC");
}

TEST(StdResponseFile, ReadsTheCommonFormBack) {
  CResponse original(Status(6));
  original.Session = L"S";
  original.Parameters[L"RESULT"] = L"ok";
  original.Progress = SetProgress({1, 2, 3, 4, 5, 6, 7});
  CResponse response;
  response.Data.push_back(JsonFile(original.ToCommonJsonString()));
  response.ParseStdResponseFromFileData();
  EXPECT_EQ(response.Status, original.Status);
  EXPECT_EQ(response.Session, original.Session);
  EXPECT_EQ(response.Parameters, original.Parameters);
  EXPECT_TRUE(response.Progress.IsSet);
  EXPECT_EQ(NumbersOf(response.Progress), NumbersOf(original.Progress));
  EXPECT_TRUE(response.Data.empty());
}

}  // namespace
}  // namespace Pendrel
