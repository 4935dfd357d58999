#include "message/CRequest.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "message/detail/HttpForm.h"

namespace Pendrel {
namespace {

TEST(Request, DefaultIsEmpty) {
  const CRequest request;
  EXPECT_TRUE(request.Resource.empty());
  EXPECT_TRUE(request.Command.empty());
  EXPECT_TRUE(request.CommandAtribute.empty());
  EXPECT_TRUE(request.CommandParams.empty());
  EXPECT_TRUE(request.RequestParams.empty());
  EXPECT_TRUE(request.InputData.empty());
}

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

TEST(RequestParamsString, SingleEntries) {
  CRequest request;
  request.RequestParams[L"A"] = L"1";
  request.CommandParams[L"A"] = L"1";
  EXPECT_EQ(request.GetRequestParamsString(), L"?a=1");
  EXPECT_EQ(request.GetCommandParamsString(), L"&a=1");
}

TEST(RequestParamsString, KeyOrderAndLowerCaseKeys) {
  CRequest request;
  request.CommandParams[L"ZOOM"] = L"2";
  request.CommandParams[L"PAGE"] = L"3";
  request.RequestParams[L"TIMEOUT"] = L"30";
  request.RequestParams[L"LANG"] = L"en";
  EXPECT_EQ(request.GetCommandParamsString(), L"&page=3&zoom=2");
  EXPECT_EQ(request.GetRequestParamsString(), L"?lang=en&timeout=30");
}

TEST(RequestParamsString, EmptyMapsGiveEmptyStrings) {
  const CRequest request;
  EXPECT_EQ(request.GetCommandParamsString(), L"");
  EXPECT_EQ(request.GetRequestParamsString(), L"");
}

TEST(RequestParamsString, ValuesAreWrittenUnescaped) {
  CRequest request;
  request.RequestParams[L"Q"] = L"a&b=c d \u00e9\u20ac";
  request.CommandParams[L"Q"] = L"x=y&z";
  EXPECT_EQ(request.GetRequestParamsString(), L"?q=a&b=c d \u00e9\u20ac");
  EXPECT_EQ(request.GetCommandParamsString(), L"&q=x=y&z");
}

TEST(RequestParamsString, MapOrderIsCodeUnitOrderWithPrefixFirst) {
  CRequest request;
  request.RequestParams[L"AB"] = L"2";
  request.RequestParams[L"A"] = L"1";
  request.RequestParams[L"B"] = L"3";
  request.RequestParams[L"_"] = L"4";
  EXPECT_EQ(request.GetRequestParamsString(), L"?a=1&ab=2&b=3&_=4");
}

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

void ExpectEmpty(const CRequest& request) {
  EXPECT_TRUE(request.Resource.empty());
  EXPECT_TRUE(request.Command.empty());
  EXPECT_TRUE(request.CommandAtribute.empty());
  EXPECT_TRUE(request.CommandParams.empty());
  EXPECT_TRUE(request.RequestParams.empty());
  EXPECT_TRUE(request.InputData.empty());
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
