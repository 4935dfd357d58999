#include "message/CRequest.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <utility>

#include "message/detail/HttpForm.h"

namespace Pendrel {
namespace {

void ExpectEmpty(const CRequest& request) {
  EXPECT_TRUE(request.Resource.empty());
  EXPECT_TRUE(request.Command.empty());
  EXPECT_TRUE(request.CommandAtribute.empty());
  EXPECT_TRUE(request.CommandParams.empty());
  EXPECT_TRUE(request.RequestParams.empty());
  EXPECT_TRUE(request.InputData.empty());
}

TEST(Request, DefaultIsEmpty) { ExpectEmpty(CRequest()); }

TEST(Request, LookupFoldsTheGivenKeyToUpperCase) {
  CRequest request;
  request.CommandParams[L"PAGE"] = L"3";
  EXPECT_TRUE(request.HasCommandKey(L"page"));
  EXPECT_TRUE(request.HasCommandKey(L"Page"));
  EXPECT_EQ(request.GetCommandValue(L"page"), L"3");
}

TEST(Request, LookupNeverFindsLowerCaseStoredKeys) {
  CRequest request;
  request.CommandParams[L"page"] = L"3";
  request.RequestParams[L"lang"] = L"en";
  EXPECT_FALSE(request.HasCommandKey(L"page"));
  EXPECT_FALSE(request.HasRequestKey(L"lang"));
  EXPECT_EQ(request.GetCommandValue(L"page"), L"");
  EXPECT_EQ(request.GetRequestValue(L"LANG"), L"");
}

TEST(Request, MissingAndEmptyValuesLookAlike) {
  CRequest request;
  request.RequestParams[L"EMPTY"] = L"";
  EXPECT_TRUE(request.HasRequestKey(L"empty"));
  EXPECT_EQ(request.GetRequestValue(L"empty"), L"");
  EXPECT_FALSE(request.HasRequestKey(L"absent"));
  EXPECT_EQ(request.GetRequestValue(L"absent"), L"");
}

TEST(Request, RemoveRequestParameterFoldsKeyAndIgnoresMissing) {
  CRequest request;
  request.RequestParams[L"LANG"] = L"en";
  request.RequestParams[L"lang"] = L"de";
  request.RemoveRequestParameter(L"Lang");
  EXPECT_EQ(request.RequestParams.count(L"LANG"), 0u);
  EXPECT_EQ(request.RequestParams.count(L"lang"), 1u) << "only the upper-cased key goes";
  request.RemoveRequestParameter(L"absent");
  EXPECT_EQ(request.RequestParams.size(), 1u);
}

// The two parameter maps as query-string texts: keys lower-cased, in the maps' order (code
// unit order, a prefix first), values as they stand.
struct ParamsStringCase {
  const char* what;
  CKeyValueMap commandParams;
  CKeyValueMap requestParams;
  const wchar_t* commandText;
  const wchar_t* requestText;
};

void PrintTo(const ParamsStringCase& c, std::ostream* out) { *out << c.what; }

class RequestParamsString : public testing::TestWithParam<ParamsStringCase> {};

TEST_P(RequestParamsString, WritesKeysLowerCasedInMapOrder) {
  const ParamsStringCase& c = GetParam();
  CRequest request;
  for (const auto& [key, value] : c.commandParams) request.CommandParams[key] = value;
  for (const auto& [key, value] : c.requestParams) request.RequestParams[key] = value;
  EXPECT_EQ(request.GetCommandParamsString(), c.commandText);
  EXPECT_EQ(request.GetRequestParamsString(), c.requestText);
}

INSTANTIATE_TEST_SUITE_P(
    Maps, RequestParamsString,
    testing::Values(
        ParamsStringCase{"SingleEntries", {{L"A", L"1"}}, {{L"A", L"1"}}, L"&a=1", L"?a=1"},
        ParamsStringCase{"KeyOrderAndLowerCaseKeys",
                         {{L"ZOOM", L"2"}, {L"PAGE", L"3"}},
                         {{L"TIMEOUT", L"30"}, {L"LANG", L"en"}},
                         L"&page=3&zoom=2",
                         L"?lang=en&timeout=30"},
        ParamsStringCase{"EmptyMapsGiveEmptyStrings", {}, {}, L"", L""},
        ParamsStringCase{"ValuesAreWrittenUnescaped",
                         {{L"Q", L"x=y&z"}},
                         {{L"Q", L"a&b=c d \u00e9\u20ac"}},
                         L"&q=x=y&z",
                         L"?q=a&b=c d \u00e9\u20ac"},
        ParamsStringCase{"MapOrderIsCodeUnitOrderWithPrefixFirst",
                         {},
                         {{L"AB", L"2"}, {L"A", L"1"}, {L"B", L"3"}, {L"_", L"4"}},
                         L"",
                         L"?a=1&ab=2&b=3&_=4"}),
    [](const testing::TestParamInfo<ParamsStringCase>& info) { return info.param.what; });

TEST(RequestCreationSession, ExactlyTheThreeCommands) {
  CRequest request;
  for (const wchar_t* command : {L"SIMPLEX", L"DUPLEX", L"JOB"}) {
    request.Command = command;
    EXPECT_TRUE(request.IsCreationSession()) << request.Command.size();
  }
  for (const wchar_t* command : {L"JOB ", L"Job", L"simplex", L"", L"PING", L"DUPLE"}) {
    request.Command = command;
    EXPECT_FALSE(request.IsCreationSession());
  }
}

struct ResourceStep {
  const wchar_t* path;
  const wchar_t* segment;
  const wchar_t* rest;
};

constexpr ResourceStep kResourceSteps[] = {
    {L"abc", L"abc", L""},
    {L"/", L"", L""},
    {L"a/", L"a", L""},
    {L"", L"", L""},
    {L"/doc/page/3", L"doc", L"page/3"},
    {L"//a", L"", L"a"},
    {L"a//b", L"a", L"/b"},
};

TEST(RequestNextResource, TakesOneSegment) {
  for (const ResourceStep& step : kResourceSteps) {
    std::wstring path = step.path;
    EXPECT_EQ(detail::TakeResourceSegment(path), step.segment) << step.path;
    EXPECT_EQ(path, step.rest);
  }
}

TEST(RequestNextResource, WalksAWholePath) {
  std::wstring path = L"/doc/page/3";
  EXPECT_EQ(detail::TakeResourceSegment(path), L"doc");
  EXPECT_EQ(detail::TakeResourceSegment(path), L"page");
  EXPECT_EQ(path, L"3");
  EXPECT_EQ(detail::TakeResourceSegment(path), L"3");
  EXPECT_EQ(path, L"");
  EXPECT_EQ(detail::TakeResourceSegment(path), L"");
}

CRequest SampleRequest() {
  CRequest request;
  request.Resource = L"/doc/plan";
  request.Command = L"SIMPLEX";
  request.CommandAtribute = L"plan";
  request.CommandParams[L"PAGE"] = L"2";
  request.RequestParams[L"LANG"] = L"en";
  CMimeFile file;
  file.FileName = L"notes.txt";
  file.Name = L"notes";
  file.Data = "hi";
  request.InputData.push_back(file);
  return request;
}

void ExpectSample(const CRequest& request) {
  EXPECT_EQ(request.Resource, L"/doc/plan");
  EXPECT_EQ(request.Command, L"SIMPLEX");
  EXPECT_EQ(request.CommandAtribute, L"plan");
  EXPECT_EQ(request.GetCommandValue(L"page"), L"2");
  EXPECT_EQ(request.GetRequestValue(L"lang"), L"en");
  ASSERT_EQ(request.InputData.size(), 1u);
  EXPECT_EQ(request.InputData[0].Data, "hi");
}

TEST(RequestCopy, IsDeep) {
  CRequest original = SampleRequest();
  CRequest copy(original);
  ExpectSample(copy);
  copy.CommandParams[L"PAGE"] = L"9";
  copy.InputData[0].Data = "changed";
  EXPECT_EQ(original.GetCommandValue(L"PAGE"), L"2");
  EXPECT_EQ(original.InputData[0].Data, "hi");
  CRequest assigned;
  assigned.Command = L"OLD";
  assigned = original;
  ExpectSample(assigned);
}

TEST(RequestCopy, SelfAssignmentKeepsContents) {
  CRequest request = SampleRequest();
  CRequest& alias = request;
  request = alias;
  ExpectSample(request);
}

TEST(RequestMove, LeavesSourceEmptyWithUsableMaps) {
  CRequest source = SampleRequest();
  CRequest target(std::move(source));
  ExpectSample(target);
  ExpectEmpty(source);
  source.CommandParams[L"X"] = L"1";
  source.RequestParams[L"Y"] = L"2";
  EXPECT_TRUE(source.HasCommandKey(L"x"));
  EXPECT_TRUE(source.HasRequestKey(L"y"));
}

TEST(RequestMove, AssignmentLeavesSourceEmpty) {
  CRequest source = SampleRequest();
  CRequest target;
  target.Command = L"OLD";
  target = std::move(source);
  ExpectSample(target);
  ExpectEmpty(source);
  source.RequestParams[L"Y"] = L"2";
  EXPECT_EQ(source.GetRequestValue(L"y"), L"2");
}

TEST(RequestMove, SelfMoveAssignmentKeepsContents) {
  CRequest request = SampleRequest();
  CRequest& alias = request;
  request = std::move(alias);
  ExpectSample(request);
}

}  // namespace
}  // namespace Pendrel
