#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "message/CResponse.h"
#include "tests/support/RandomText.h"
#include "tests/support/RecordChecks.h"

namespace Pendrel {
namespace {

using pendrel_test::ExpectSameFiles;

constexpr EStatus Status(int value) { return static_cast<EStatus>(value); }

using ParamMap = CKeyValueMap;

CMimeFile File(EMimeType type, std::wstring fileName, std::wstring name, std::string data,
               bool isAttachment) {
  CMimeFile file;
  file.Type = type;
  file.FileName = std::move(fileName);
  file.Name = std::move(name);
  file.Data = std::move(data);
  file.IsAttachment = isAttachment;
  return file;
}

// The record of the worked example: status 0, session "S-17", one parameter, progress and
// one file.
CResponse ExampleResponse() {
  CResponse response;
  response.Status = Status(0);
  response.Session = L"S-17";
  response.Parameters[L"RESULT"] = L"ok";
  response.Progress = pendrel_test::SetProgress({2, 5, 40, 100, 240, 500, 12});
  response.Data.push_back(File(Text, L"out.txt", L"Result", "line one\nline two", false));
  return response;
}

void ExpectSameProgress(const CProgress& actual, const CProgress& expected) {
  EXPECT_EQ(actual.IsSet, expected.IsSet);
  EXPECT_EQ(pendrel_test::NumbersOf(actual), pendrel_test::NumbersOf(expected));
}

CResponse Read(const std::string& json) {
  CResponse response;
  EXPECT_TRUE(response.FromJsonString(json)) << json;
  return response;
}

TEST(ResponseJson, WritesTheFullFormOfTheExample) {
  EXPECT_EQ(ExampleResponse().ToJsonString(),
            R"({"Data":[{"Type":3,"FileName":"out.txt","Title":"Result",)"
            R"("Data":"line one\nline two","IsAttachment":false}],"status":0,"session":"S-17",)"
            R"("Parameters":{"RESULT":"ok"},"phase":{"pos":2,"total":5},)"
            R"("phaseProgress":{"pos":40,"total":100},)"
            R"("taskProgress":{"pos":240,"total":500,"time":12}})");
}

TEST(ResponseJson, WritesTheCommonFormOfTheExample) {
  EXPECT_EQ(ExampleResponse().ToCommonJsonString(),
            R"({"status":0,"session":"S-17","phase":{"pos":2,"total":5},)"
            R"("phaseProgress":{"pos":40,"total":100},)"
            R"("taskProgress":{"pos":240,"total":500,"time":12},"RESULT":"ok"})");
}

TEST(ResponseJson, WritesMinimalForms) {
  CResponse response;
  response.Status = Status(0);
  EXPECT_EQ(response.ToJsonString(), R"({"status":0,"Parameters":{}})");
  EXPECT_EQ(response.ToCommonJsonString(), R"({"status":0})");
  EXPECT_EQ(CResponse().ToJsonString(), R"({"status":3,"Parameters":{}})");
}

TEST(ResponseJson, CommonFormRepeatsAParameterNamedLikeAFixedMember) {
  CResponse response;
  response.Status = Status(4);
  response.Parameters[L"status"] = L"x";
  EXPECT_EQ(response.ToCommonJsonString(), R"({"status":4,"status":"x"})");
}

TEST(ResponseJson, CommonFormNeverWritesFiles) {
  CResponse response = ExampleResponse();
  response.Progress.IsSet = false;
  response.Session.clear();
  EXPECT_EQ(response.ToCommonJsonString(), R"({"status":0,"RESULT":"ok"})");
}

TEST(ResponseJson, WritesStatusAndFileTypeAsNumbers) {
  CResponse response(Status(-2));
  response.Data.push_back(File(static_cast<EMimeType>(42), L"", L"", "", true));
  EXPECT_EQ(response.ToJsonString(),
            R"({"Data":[{"Type":42,"FileName":"","Title":"","Data":"","IsAttachment":true}],)"
            R"("status":-2,"Parameters":{}})");
}

TEST(ResponseJson, WritesFileBytesAsTheyAreBesideTheEightEscapes) {
  CResponse response;
  response.Data.push_back(File(Binary, L"b", L"b", std::string("\0\x7F\xC3\xFF\\\t", 6), true));
  const std::string json = response.ToJsonString();
  EXPECT_NE(json.find(std::string("\"Data\":\"\0\x7F\xC3\xFF\\\\\\t\"", 17)), std::string::npos);
}

TEST(ResponseJson, ReadsTheFullFormOfAFileLessRecordBack) {
  CResponse original = ExampleResponse();
  original.Data.clear();
  original.Tag = 77;
  const CResponse back = Read(original.ToJsonString());
  EXPECT_EQ(back.Status, original.Status);
  EXPECT_EQ(back.Session, original.Session);
  EXPECT_EQ(back.Parameters, original.Parameters);
  ExpectSameProgress(back.Progress, original.Progress);
  EXPECT_EQ(back.Tag, 0u);  // not part of any form
  EXPECT_TRUE(back.Data.empty());
}

TEST(ResponseJson, ReadsOnlyTheFilesOfARecordWithFiles) {
  const CResponse original = ExampleResponse();
  const CResponse back = Read(original.ToJsonString());
  ExpectSameFiles(back.Data, original.Data);
  EXPECT_EQ(back.Status, Status(1));
  EXPECT_EQ(back.Session, L"");
  EXPECT_TRUE(back.Parameters.empty());
  EXPECT_FALSE(back.Progress.IsSet);
}

TEST(ResponseJson, FileListKeepsEarlierFieldsAndAppendsFiles) {
  CResponse response;
  response.Status = Status(9);
  response.Session = L"S1";
  response.Parameters[L"k"] = L"v";
  response.Progress.IsSet = true;
  response.Progress.PhasePos = 4;
  response.Data.push_back(File(Pdf, L"first.pdf", L"first", "1", true));
  EXPECT_TRUE(
      response.FromJsonString(R"({"Data":[{"Type":5,"FileName":"b.png","Title":"b","Data":"2"}],)"
                              R"("status":0,"session":"S2","Parameters":{"k":"w"}})"));
  EXPECT_EQ(response.Status, Status(1));
  EXPECT_EQ(response.Session, L"S1");
  EXPECT_EQ(response.Parameters, (ParamMap{{L"k", L"v"}}));
  EXPECT_TRUE(response.Progress.IsSet);
  EXPECT_EQ(response.Progress.PhasePos, 4);
  ExpectSameFiles(response.Data, {File(Pdf, L"first.pdf", L"first", "1", true),
                                  File(Png, L"b.png", L"b", "2", true)});
}

TEST(ResponseJson, ReadsFileMembersLeniently) {
  const CResponse response =
      Read(R"({"Data":[{"Type":"5","FileName":7,"Title":null,"Data":null},)"
           R"({"Type":4.9,"Data":{"x":1},"IsAttachment":"true"},)"
           R"({"IsAttachment":false},{"IsAttachment":TRUE},{"IsAttachment":null},12]})");
  ExpectSameFiles(response.Data, {
                                     File(None, L"7", L"null", "null", true),
                                     File(Jpeg, L"", L"", "", false),
                                     File(None, L"", L"", "", false),
                                     File(None, L"", L"", "", true),
                                     File(None, L"", L"", "", false),
                                     File(None, L"", L"", "", true),
                                 });
}

TEST(ResponseJson, FileWithoutIsAttachmentIsAnAttachment) {
  const CResponse response = Read(R"({"Data":[{"Type":3}]})");
  ASSERT_EQ(response.Data.size(), 1u);
  EXPECT_TRUE(response.Data[0].IsAttachment);
}

TEST(ResponseJson, DataThatIsNotAnArrayReadsTheRest) {
  const CResponse response = Read(R"({"Data":{"x":1},"status":6,"Parameters":{"a":"b"}})");
  EXPECT_TRUE(response.Data.empty());
  EXPECT_EQ(response.Status, Status(6));
  EXPECT_EQ(response.Parameters, (ParamMap{{L"a", L"b"}}));
}

TEST(ResponseJson, ProgressIsSetByPhaseProgressAlone) {
  CResponse withoutIt = Read(R"({"status":2,"phase":{"pos":1,"total":3}})");
  EXPECT_FALSE(withoutIt.Progress.IsSet);
  EXPECT_EQ(withoutIt.Status, Status(2));

  CResponse response;
  response.Progress.PhasePos = 5;
  response.Progress.TaskProgressTime = 5;
  EXPECT_TRUE(response.FromJsonString(R"({"status":2,"phaseProgress":{}})"));
  EXPECT_TRUE(response.Progress.IsSet);
  CProgress zero;
  zero.IsSet = true;
  ExpectSameProgress(response.Progress, zero);
}

TEST(ResponseJson, ClearsProgressWhenTheDocumentHasNone) {
  CResponse response = ExampleResponse();
  response.Data.clear();
  EXPECT_TRUE(response.FromJsonString(R"({"status":1})"));
  EXPECT_FALSE(response.Progress.IsSet);
}

TEST(ResponseJson, ReadsStatusOnlyFromANumber) {
  EXPECT_EQ(Read(R"({"status":"5"})").Status, Status(0));
  EXPECT_EQ(Read(R"({"status":5.7})").Status, Status(5));
  EXPECT_EQ(Read(R"({"status":-5})").Status, Status(-5));
  EXPECT_EQ(Read(R"({"status":true})").Status, Status(0));
  EXPECT_EQ(Read(R"({"Status":5})").Status, Status(0));
  EXPECT_EQ(Read(R"({})").Status, Status(0));
  EXPECT_EQ(Read(R"({"status":1,"status":2})").Status, Status(1));  // the first wins
}

TEST(ResponseJson, ReadsParameterValuesOfEveryKind) {
  const CResponse response =
      Read(R"({"Parameters":{"n":null,"o":{"x":1},"a":[1],"i":12,"t":true,"s":"caf\u00e9"}})");
  EXPECT_EQ(response.Parameters, (ParamMap{{L"n", L"null"},
                                           {L"o", L""},
                                           {L"a", L""},
                                           {L"i", L"12"},
                                           {L"t", L"true"},
                                           {L"s", L"caf\\u00e9"}}));
}

TEST(ResponseJson, MergesParametersWithLaterDuplicatesWinning) {
  CResponse response;
  response.Parameters[L"old"] = L"1";
  response.Parameters[L"k"] = L"0";
  EXPECT_TRUE(response.FromJsonString(R"({"Parameters":{"k":"a","k":"b","caf\u00e9":"x"}})"));
  EXPECT_EQ(response.Parameters, (ParamMap{{L"old", L"1"}, {L"k", L"b"}, {L"caf\\u00e9", L"x"}}));
  CResponse utf8;
  EXPECT_TRUE(utf8.FromJsonString("{\"Parameters\":{\"caf\xC3\xA9\":\"\xE2\x82\xAC\"}}"));
  EXPECT_EQ(utf8.Parameters, (ParamMap{{L"caf\u00E9", L"\u20AC"}}));
}

TEST(ResponseJson, ReadsParametersOfAnArrayUnderTheEmptyName) {
  const CResponse response = Read(R"({"Parameters":["x","y"]})");
  EXPECT_EQ(response.Parameters, (ParamMap{{L"", L"y"}}));
}

TEST(ResponseJson, MissingSessionEmptiesTheSession) {
  CResponse response;
  response.Session = L"S1";
  EXPECT_TRUE(response.FromJsonString(R"({"status":0})"));
  EXPECT_EQ(response.Session, L"");
  EXPECT_EQ(Read(R"({"session":null})").Session, L"null");
  EXPECT_EQ(Read(R"({"session":[1]})").Session, L"");
  EXPECT_EQ(Read(R"({"session":17})").Session, L"17");
}

TEST(ResponseJson, TextThatIsNotJsonReadsAsAnEmptyDocument) {
  CResponse response(Status(7));
  response.Session = L"S1";
  response.Parameters[L"k"] = L"v";
  response.Progress.IsSet = true;
  response.Data.push_back(File(Text, L"a.txt", L"a", "a", true));
  EXPECT_TRUE(response.FromJsonString("{\"status\":1,]"));
  EXPECT_EQ(response.Status, Status(0));
  EXPECT_EQ(response.Session, L"");
  EXPECT_FALSE(response.Progress.IsSet);
  EXPECT_EQ(response.Parameters, (ParamMap{{L"k", L"v"}}));
  EXPECT_EQ(response.Data.size(), 1u);
}

TEST(ResponseJson, RootThatIsAnArrayReadsAsAnEmptyDocument) {
  CResponse response(Status(7));
  EXPECT_TRUE(response.FromJsonString(R"([{"status":4}])"));
  EXPECT_EQ(response.Status, Status(0));
}

TEST(ResponseJson, RoundTripsRandomRecordsWithoutFiles) {
  pendrel_test::RandomText random(4711);
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    CResponse original(Status(random.AnyInt()));
    original.Tag = random.Next();
    original.Session = random.Wide(10);
    for (std::uint32_t n = random.Below(6); n > 0; --n) {
      original.Parameters[random.Wide(10, true)] = random.Wide(30);
    }
    if (random.Chance(2)) {
      CProgress& progress = original.Progress;
      progress.IsSet = true;
      progress.PhasePos = random.AnyInt();
      progress.PhaseTotal = random.AnyInt();
      progress.PhaseProgressPos = random.AnyInt();
      progress.PhaseProgressTotal = random.AnyInt();
      progress.TaskProgressPos = random.AnyInt();
      progress.TaskProgressTotal = random.AnyInt();
      progress.TaskProgressTime = random.AnyInt();
    }
    CResponse back;
    ASSERT_TRUE(back.FromJsonString(original.ToJsonString()));
    EXPECT_EQ(back.Status, original.Status);
    EXPECT_EQ(back.Session, original.Session);
    EXPECT_EQ(back.Parameters, original.Parameters);
    ExpectSameProgress(back.Progress, original.Progress);
    EXPECT_TRUE(back.Data.empty());
  }
}

TEST(ResponseJson, RoundTripsRandomFiles) {
  pendrel_test::RandomText random(815);
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE(round);
    CResponse original(Status(random.AnyInt()));
    original.Session = random.Wide(10);
    original.Parameters[random.Wide(10, true)] = random.Wide(30);
    for (std::uint32_t n = 1 + random.Below(3); n > 0; --n) {
      original.Data.push_back(File(static_cast<EMimeType>(random.AnyInt()), random.Wide(12),
                                   random.Wide(12), random.Bytes(round % 20 == 0 ? 300000 : 4000),
                                   random.Chance(2)));
    }
    CResponse back;
    ASSERT_TRUE(back.FromJsonString(original.ToJsonString()));
    ExpectSameFiles(back.Data, original.Data);
    EXPECT_EQ(back.Status, Status(1));
    EXPECT_EQ(back.Session, L"");
    EXPECT_TRUE(back.Parameters.empty());
  }
}

TEST(ResponseJson, RoundTripsCharactersAboveFFFF) {
  CResponse original(Status(0));
  original.Session = L"s\U0001F600";
  original.Parameters[L"\U0001F600"] = L"v\U0001F600\U0010FFFF";
  original.Parameters[L"\uFF21"] = L"\U00010000";
  original.Progress = pendrel_test::SetProgress({1, 2, 3, 4, 5, 6, 7});
  CResponse back;
  ASSERT_TRUE(back.FromJsonString(original.ToJsonString()));
  EXPECT_EQ(back.Session, original.Session);
  EXPECT_EQ(back.Parameters, original.Parameters);
  EXPECT_EQ(back.ToJsonString(), original.ToJsonString());

  CResponse withFiles;
  withFiles.Data.push_back(File(Png, L"\U0001F600.png", L"\U0001F600", "png", false));
  withFiles.Data.push_back(File(Text, L"a\U0001D11E.txt", L"a\U0001D11E", "txt", true));
  CResponse filesBack;
  ASSERT_TRUE(filesBack.FromJsonString(withFiles.ToJsonString()));
  ExpectSameFiles(filesBack.Data, withFiles.Data);
}

TEST(ResponseJson, RoundTripsSixteenMegabytesOfFileData) {
  pendrel_test::RandomText random(5);
  std::string data = random.Bytes(16 * 1024 * 1024);
  data.resize(16 * 1024 * 1024, '"');
  CResponse original;
  original.Data.push_back(File(Zip, L"big.zip", L"big", data, true));
  CResponse back;
  ASSERT_TRUE(back.FromJsonString(original.ToJsonString()));
  ASSERT_EQ(back.Data.size(), 1u);
  EXPECT_EQ(back.Data[0].Data.size(), data.size());
  EXPECT_TRUE(back.Data[0].Data == data);
}

}  // namespace
}  // namespace Pendrel
