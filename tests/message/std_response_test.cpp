#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>

#include "message/CResponse.h"

namespace Pendrel {
namespace {

constexpr EStatus Status(int value) { return static_cast<EStatus>(value); }

using ParamMap = std::map<std::wstring, std::wstring>;

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
  EXPECT_EQ(response.Progress.PhasePos, 2);
  EXPECT_EQ(response.Progress.PhaseTotal, 5);
  EXPECT_EQ(response.Progress.PhaseProgressPos, 40);
  EXPECT_EQ(response.Progress.PhaseProgressTotal, 100);
  EXPECT_EQ(response.Progress.TaskProgressPos, 240);
  EXPECT_EQ(response.Progress.TaskProgressTotal, 500);
  EXPECT_EQ(response.Progress.TaskProgressTime, 12);
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

TEST(StdResponseFile, LeavesAFileWithoutStatusInPlace) {
  CResponse response = WithFile(R"({"result":"ok"})");
  response.ParseStdResponseFromFileData();
  ExpectUnchanged(response, 1);
}

TEST(StdResponseFile, LeavesAFileWithMisspelledStatusInPlace) {
  CResponse response = WithFile(R"({"Status":1})");
  response.ParseStdResponseFromFileData();
  ExpectUnchanged(response, 1);
}

TEST(StdResponseFile, LeavesContentThatIsNotJsonInPlace) {
  CResponse response = WithFile(R"({"status":1,])");
  response.ParseStdResponseFromFileData();
  ExpectUnchanged(response, 1);
}

TEST(StdResponseFile, LeavesAnArrayRootInPlace) {
  CResponse response = WithFile(R"([{"status":1}])");
  response.ParseStdResponseFromFileData();
  ExpectUnchanged(response, 1);
}

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
  response.Progress.PhaseProgressPos = 11;
  response.Progress.PhaseProgressTotal = 12;
  response.Progress.TaskProgressPos = 13;
  response.Progress.TaskProgressTotal = 14;
  response.Progress.TaskProgressTime = 15;
  response.ParseStdResponseFromFileData();
  EXPECT_TRUE(response.Progress.IsSet);
  EXPECT_EQ(response.Progress.PhasePos, 1);
  EXPECT_EQ(response.Progress.PhaseTotal, 2);
  EXPECT_EQ(response.Progress.PhaseProgressPos, 11);
  EXPECT_EQ(response.Progress.PhaseProgressTotal, 12);
  EXPECT_EQ(response.Progress.TaskProgressPos, 13);
  EXPECT_EQ(response.Progress.TaskProgressTotal, 14);
  EXPECT_EQ(response.Progress.TaskProgressTime, 15);
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
  original.Progress.IsSet = true;
  original.Progress.PhasePos = 1;
  original.Progress.PhaseTotal = 2;
  original.Progress.PhaseProgressPos = 3;
  original.Progress.PhaseProgressTotal = 4;
  original.Progress.TaskProgressPos = 5;
  original.Progress.TaskProgressTotal = 6;
  original.Progress.TaskProgressTime = 7;
  CResponse response;
  response.Data.push_back(JsonFile(original.ToCommonJsonString()));
  response.ParseStdResponseFromFileData();
  EXPECT_EQ(response.Status, original.Status);
  EXPECT_EQ(response.Session, original.Session);
  EXPECT_EQ(response.Parameters, original.Parameters);
  EXPECT_TRUE(response.Progress.IsSet);
  EXPECT_EQ(response.Progress.TaskProgressTime, 7);
  EXPECT_EQ(response.Progress.PhaseProgressTotal, 4);
  EXPECT_TRUE(response.Data.empty());
}

}  // namespace
}  // namespace Pendrel
