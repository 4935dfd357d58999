#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "json/TextConversion.h"
#include "message/CRequest.h"
#include "tests/support/RandomText.h"
#include "tests/support/RecordChecks.h"

namespace Pendrel {
namespace {

using pendrel_test::ExpectSameFiles;

CMimeFile File(EMimeType type, std::wstring fileName, std::wstring name, std::string data) {
  CMimeFile file;
  file.Type = type;
  file.FileName = std::move(fileName);
  file.Name = std::move(name);
  file.Data = std::move(data);
  return file;
}

CRequest Read(const std::string& json) {
  CRequest request;
  EXPECT_TRUE(request.FromJsonString(json)) << json;
  return request;
}

TEST(RequestJson, WritesTheDocumentOfTheExample) {
  CRequest request;
  request.Command = L"SIMPLEX";
  request.CommandAtribute = L"plan";
  request.CommandParams[L"PAGE"] = L"2";
  request.RequestParams[L"LANG"] = L"en";
  request.RequestParams[L"TIMEOUT"] = L"30";
  request.InputData.push_back(File(Text, L"notes.txt", L"notes", "hi"));
  // The MIME name is a string value like any other, so its "/" is escaped.
  EXPECT_EQ(request.ToJsonString(),
            R"({"Command":"SIMPLEX","CommandAtribute":"plan","CommandParams":{"PAGE":"2"},)"
            R"("RequestParams":{"LANG":"en","TIMEOUT":"30"},"InputData":[{"Name":"notes",)"
            R"("FileName":"notes.txt","Type":"text\/plain","Data":"hi"}]})");
}

TEST(RequestJson, WritesEveryMemberOfAnEmptyRecord) {
  EXPECT_EQ(CRequest().ToJsonString(),
            R"({"Command":"","CommandAtribute":"","CommandParams":{},"RequestParams":{},)"
            R"("InputData":[]})");
}

TEST(RequestJson, LeavesResourceAndIsAttachmentOut) {
  CRequest request;
  request.Resource = L"/doc/page";
  CMimeFile file = File(None, L"a", L"b", "");
  file.IsAttachment = false;
  request.InputData.push_back(file);
  const std::string json = request.ToJsonString();
  EXPECT_EQ(json.find("Resource"), std::string::npos);
  EXPECT_EQ(json.find("IsAttachment"), std::string::npos);
  // None names no type of its own.
  EXPECT_NE(json.find(R"("Type":"application\/octet-stream")"), std::string::npos);
}

TEST(RequestJson, WritesKeysAsStoredAndTextAsUtf8) {
  CRequest request;
  request.Command = L"caf\u00E9 \u20AC";
  request.CommandParams[L"page"] = L"a\"b\\c/d";
  request.RequestParams[L"Mixed"] = L"\n";
  EXPECT_EQ(request.ToJsonString(),
            "{\"Command\":\"caf\xC3\xA9 \xE2\x82\xAC\",\"CommandAtribute\":\"\","
            R"("CommandParams":{"page":"a\"b\\c\/d"},"RequestParams":{"Mixed":"\n"},)"
            R"("InputData":[]})");
}

TEST(RequestJson, WritesFileBytesWithOnlyTheEightEscapes) {
  CRequest request;
  request.InputData.push_back(File(Binary, L"b.bin", L"b", std::string("\0\x01\"\xFF\n/", 6)));
  const std::string json = request.ToJsonString();
  const std::string expected =
      std::string(R"("Data":")") + std::string("\0\x01", 2) + "\\\"\xFF\\n\\/\"}]}";
  ASSERT_GE(json.size(), expected.size());
  EXPECT_EQ(json.substr(json.size() - expected.size()), expected);
}

TEST(RequestJson, NameWithAQuoteIsWrittenRaw) {
  CRequest request;
  request.CommandParams[L"a\"b"] = L"v";
  EXPECT_NE(request.ToJsonString().find(R"({"a"b":"v"})"), std::string::npos);
}

TEST(RequestJson, ReadsTheExampleBack) {
  CRequest request =
      Read(R"({"Command":"SIMPLEX","CommandAtribute":"plan","CommandParams":{"PAGE":"2"},)"
           R"("RequestParams":{"LANG":"en","TIMEOUT":"30"},"InputData":[{"Name":"notes",)"
           R"("FileName":"notes.txt","Type":"text/plain","Data":"hi"}]})");
  EXPECT_EQ(request.Command, L"SIMPLEX");
  EXPECT_EQ(request.CommandAtribute, L"plan");
  EXPECT_EQ(request.CommandParams, (CKeyValueMap{{L"PAGE", L"2"}}));
  EXPECT_EQ(request.RequestParams, (CKeyValueMap{{L"LANG", L"en"}, {L"TIMEOUT", L"30"}}));
  ExpectSameFiles(request.InputData, {File(Text, L"notes.txt", L"notes", "hi")});
  EXPECT_TRUE(request.IsCreationSession());
}

TEST(RequestJson, FoldsRequestParamKeysButNotCommandParamKeys) {
  const CRequest request = Read(R"({"CommandParams":{"page":"3"},"RequestParams":{"lang":"en"}})");
  EXPECT_EQ(request.GetRequestValue(L"LANG"), L"en");
  EXPECT_EQ(request.GetRequestValue(L"Lang"), L"en");
  EXPECT_EQ(request.RequestParams.count(L"LANG"), 1u);
  EXPECT_EQ(request.GetCommandValue(L"page"), L"");
  EXPECT_EQ(request.CommandParams.at(L"page"), L"3");
}

TEST(RequestJson, KeepsFirstDuplicateCommandParam) {
  const CRequest request = Read(R"({"CommandParams":{"PAGE":"1","PAGE":"2"}})");
  EXPECT_EQ(request.CommandParams.at(L"PAGE"), L"1");
}

TEST(RequestJson, KeepsFirstRequestParamThatFoldsToTheSameKey) {
  const CRequest request = Read(R"({"RequestParams":{"lang":"en","LANG":"de"}})");
  EXPECT_EQ(request.RequestParams.size(), 1u);
  EXPECT_EQ(request.GetRequestValue(L"LANG"), L"en");
}

TEST(RequestJson, ReadsNullCommandAsTheTextNull) {
  EXPECT_EQ(Read(R"({"Command":null})").Command, L"null");
}

TEST(RequestJson, ReadsOtherKindsLeniently) {
  const CRequest request =
      Read(R"({"Command":12,"CommandAtribute":{"x":1},)"
           R"("CommandParams":{"N":5,"B":true,"Z":null,"O":{},"A":[1],"S":"s"}})");
  EXPECT_EQ(request.Command, L"12");
  EXPECT_EQ(request.CommandAtribute, L"");
  EXPECT_EQ(
      request.CommandParams,
      (CKeyValueMap{
          {L"N", L"5"}, {L"B", L"true"}, {L"Z", L"null"}, {L"O", L""}, {L"A", L""}, {L"S", L"s"}}));
}

TEST(RequestJson, ReadsTypeByExactMimeName) {
  const CRequest request =
      Read(R"({"InputData":[{"Type":"image/png"},{"Type":"IMAGE/PNG"},{},{"Type":null},)"
           R"({"Type":"application/pdf"},{"Type":"text/plain"}]})");
  ASSERT_EQ(request.InputData.size(), 6u);
  EXPECT_EQ(request.InputData[0].Type, Png);
  EXPECT_EQ(request.InputData[1].Type, Binary);
  EXPECT_EQ(request.InputData[2].Type, Binary);
  EXPECT_EQ(request.InputData[3].Type, Binary);
  EXPECT_EQ(request.InputData[4].Type, Pdf);
  EXPECT_EQ(request.InputData[5].Type, Text);
}

TEST(RequestJson, ReadsFileDataLeniently) {
  const CRequest request =
      Read(R"({"InputData":[{"Data":null},{},{"Data":7},{"Data":[1]},"not an object"]})");
  ASSERT_EQ(request.InputData.size(), 5u);
  EXPECT_EQ(request.InputData[0].Data, "null");
  EXPECT_EQ(request.InputData[1].Data, "");
  EXPECT_EQ(request.InputData[2].Data, "7");
  EXPECT_EQ(request.InputData[3].Data, "");
  ExpectSameFiles({request.InputData[4]}, {File(Binary, L"", L"", "")});
}

TEST(RequestJson, ReadFilesAreAttachments) {
  const CRequest request = Read(R"({"InputData":[{"IsAttachment":false}]})");
  ASSERT_EQ(request.InputData.size(), 1u);
  EXPECT_TRUE(request.InputData[0].IsAttachment);
}

TEST(RequestJson, TextThatIsNotJsonReadsAsAnEmptyDocument) {
  CRequest request;
  request.Command = L"OLD";
  request.CommandParams[L"A"] = L"1";
  EXPECT_TRUE(request.FromJsonString("this is not JSON ["));
  EXPECT_EQ(request.Command, L"");
  EXPECT_EQ(request.CommandAtribute, L"");
  EXPECT_TRUE(request.CommandParams.empty());
  EXPECT_TRUE(request.RequestParams.empty());
  EXPECT_TRUE(request.InputData.empty());
}

TEST(RequestJson, TreatsMistypedMembersAsEmpty) {
  const CRequest request =
      Read(R"({"CommandParams":["x"],"RequestParams":"y","InputData":{"Name":"n"}})");
  EXPECT_TRUE(request.CommandParams.empty());
  EXPECT_TRUE(request.RequestParams.empty());
  EXPECT_TRUE(request.InputData.empty());
}

TEST(RequestJson, ReadingReplacesTheWholeRecord) {
  CRequest request;
  request.Resource = L"/r";
  request.CommandAtribute = L"old";
  request.RequestParams[L"OLD"] = L"1";
  request.InputData.push_back(File(Pdf, L"x.pdf", L"x", "x"));
  EXPECT_TRUE(request.FromJsonString(R"({"Command":"PING"})"));
  EXPECT_EQ(request.Resource, L"");
  EXPECT_EQ(request.Command, L"PING");
  EXPECT_EQ(request.CommandAtribute, L"");
  EXPECT_TRUE(request.RequestParams.empty());
  EXPECT_TRUE(request.InputData.empty());
}

TEST(RequestJson, ReadsCommentsAndLooseSyntax) {
  const CRequest request = Read("// from a handler\n{\"Command\" : \"JOB\", /* x */ }");
  EXPECT_EQ(request.Command, L"JOB");
}

TEST(RequestJson, RoundTripsRandomRecords) {
  pendrel_test::RandomText random(1303);
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    CRequest original;
    original.Resource = random.Wide(5);
    original.Command = random.Wide(12);
    original.CommandAtribute = random.Wide(12);
    for (std::uint32_t n = random.Below(5); n > 0; --n) {
      original.CommandParams[random.Wide(8, true)] = random.Wide(20);
      original.RequestParams[random.Wide(8, true)] = random.Wide(20);
    }
    for (std::uint32_t n = random.Below(4); n > 0; --n) {
      CMimeFile file = File(static_cast<EMimeType>(1 + random.Below(10)), random.Wide(10),
                            random.Wide(10), random.Bytes(round % 25 == 0 ? 200000 : 3000));
      file.IsAttachment = random.Chance(2);
      original.InputData.push_back(std::move(file));
    }

    CRequest back;
    ASSERT_TRUE(back.FromJsonString(original.ToJsonString()));

    // What does not come back as it was: Resource is not in the form, request keys are
    // folded (the first of two that fold alike wins), files are attachments.
    CKeyValueMap foldedParams;
    for (const auto& [key, value] : original.RequestParams) {
      foldedParams.emplace(ToUpperW(key), value);
    }
    std::vector<CMimeFile> expectedFiles = original.InputData;
    for (CMimeFile& file : expectedFiles) file.IsAttachment = true;

    EXPECT_EQ(back.Resource, L"");
    EXPECT_EQ(back.Command, original.Command);
    EXPECT_EQ(back.CommandAtribute, original.CommandAtribute);
    EXPECT_EQ(back.CommandParams, original.CommandParams);
    EXPECT_EQ(back.RequestParams, foldedParams);
    ExpectSameFiles(back.InputData, expectedFiles);
  }
}

// `original`, whose request keys are upper case and whose files are attachments, comes back
// from its JSON form as it was and writes the same form again.
void ExpectRoundTrip(const CRequest& original) {
  CRequest back;
  ASSERT_TRUE(back.FromJsonString(original.ToJsonString()));
  EXPECT_EQ(back.Command, original.Command);
  EXPECT_EQ(back.CommandAtribute, original.CommandAtribute);
  EXPECT_EQ(back.CommandParams, original.CommandParams);
  EXPECT_EQ(back.RequestParams, original.RequestParams);
  ExpectSameFiles(back.InputData, original.InputData);
  EXPECT_EQ(back.ToJsonString(), original.ToJsonString());
}

TEST(RequestJson, RoundTripsUpperCaseKeysUnchanged) {
  CRequest original;
  original.Command = L"DUPLEX";
  original.CommandParams[L"PAGE"] = L"3";
  original.RequestParams[L"LANG"] = L"en";
  original.InputData.push_back(File(Svg, L"a.svg", L"a", "<svg/>"));
  ExpectRoundTrip(original);
}

TEST(RequestJson, RoundTripsCharactersAboveFFFF) {
  CRequest original;
  original.Command = L"\U0001F600";
  original.CommandAtribute = L"x\U00010000y";
  original.CommandParams[L"\U0001F600"] = L"v\U0001F600\U0010FFFF";
  original.CommandParams[L"\uFF21"] = L"w";
  original.RequestParams[L"K\U0001D11E"] = L"\U0001F4A9";
  original.InputData.push_back(File(Text, L"\U0001F600 notes.txt", L"\U0001F600 notes", "x"));
  ExpectRoundTrip(original);
}

TEST(RequestJson, RoundTripsSixteenMegabytesOfFileData) {
  pendrel_test::RandomText random(99);
  std::string data(16 * 1024 * 1024, '\0');
  for (std::size_t i = 0; i < data.size(); i += 4) {
    const std::uint32_t word = random.Next();
    for (std::size_t k = 0; k < 4; ++k) data[i + k] = static_cast<char>(word >> (8 * k));
  }
  CRequest original;
  original.InputData.push_back(File(Binary, L"big.bin", L"big", data));
  const std::string json = original.ToJsonString();
  EXPECT_GT(json.size(), data.size());
  CRequest back;
  ASSERT_TRUE(back.FromJsonString(json));
  ASSERT_EQ(back.InputData.size(), 1u);
  EXPECT_EQ(back.InputData[0].Data.size(), data.size());
  EXPECT_TRUE(back.InputData[0].Data == data);
}

}  // namespace
}  // namespace Pendrel

namespace Pendrel {
namespace {

// A text given away reads as the same record as a text lent, files of megabytes included,
// and the largest file keeps the text's own memory.
TEST(RequestJson, TextGivenAwayReadsAsTheSameRecord) {
  CRequest written;
  written.Command = L"REQ";
  written.RequestParams[L"KEY"] = L"value";
  CMimeFile big;
  big.Name = L"big";
  big.Data = std::string(std::size_t{3} << 20, 'b');
  big.Data[12345] = '"';
  big.Data[2000000] = '\\';
  CMimeFile small;
  small.Name = L"small";
  small.Data = "tiny";
  written.InputData = {big, small};
  const std::string json = written.ToJsonString();

  CRequest lent;
  ASSERT_TRUE(lent.FromJsonString(json));
  std::string text = json;
  const char* const memory = text.data();
  CRequest given;
  ASSERT_TRUE(given.FromJsonString(std::move(text)));
  EXPECT_EQ(given.Command, lent.Command);
  EXPECT_EQ(given.RequestParams, lent.RequestParams);
  ExpectSameFiles(given.InputData, lent.InputData);
  ASSERT_EQ(given.InputData.size(), 2u);
  EXPECT_EQ(given.InputData[0].Data, big.Data);
  EXPECT_EQ(given.InputData[0].Data.data(), memory);
}

}  // namespace
}  // namespace Pendrel
