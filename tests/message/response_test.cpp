#include "message/CResponse.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "tests/message/ErrorOutputChild.h"
#include "tests/support/Platform.h"
#include "tests/support/RecordChecks.h"

namespace Pendrel {
namespace {

using pendrel_test::NumbersOf;
using pendrel_test::ProgressNumbers;
using pendrel_test::SetProgress;

constexpr EStatus Status(int value) { return static_cast<EStatus>(value); }

void ExpectProgressZero(const CProgress& progress) {
  EXPECT_EQ(NumbersOf(progress), ProgressNumbers{});
}

TEST(Progress, DefaultIsUnsetWithZeroNumbers) {
  const CProgress progress;
  EXPECT_FALSE(progress.IsSet);
  ExpectProgressZero(progress);
}

CProgress SampleProgress() { return SetProgress({2, 5, 40, 100, 240, 500, -12}); }

void ExpectSampleProgress(const CProgress& progress) {
  EXPECT_EQ(NumbersOf(progress), (ProgressNumbers{2, 5, 40, 100, 240, 500, -12}));
  EXPECT_TRUE(progress.IsSet);
}

TEST(Progress, AssignmentCopiesAllEightMembersAndKeepsSource) {
  CProgress source = SampleProgress();
  CProgress copied;
  copied = source;
  ExpectSampleProgress(copied);
  CProgress moved;
  moved = std::move(source);
  ExpectSampleProgress(moved);
  ExpectSampleProgress(source);
}

TEST(Response, DefaultHasStatusThreeAndNothingElse) {
  const CResponse response;
  EXPECT_EQ(response.Tag, 0u);
  EXPECT_EQ(response.Status, 3);
  EXPECT_TRUE(response.Parameters.empty());
  EXPECT_TRUE(response.Data.empty());
  EXPECT_TRUE(response.Session.empty());
  EXPECT_FALSE(response.Progress.IsSet);
}

TEST(Response, StatusConstructorSetsOnlyStatus) {
  const CResponse response(Status(-5));
  EXPECT_EQ(response.Status, -5);
  EXPECT_EQ(response.Tag, 0u);
  EXPECT_TRUE(response.Parameters.empty());
  EXPECT_FALSE(response.Progress.IsSet);
}

TEST(Response, MessageConstructorSetsErrorParameter) {
  const CResponse response(std::wstring(L"disk full"));
  EXPECT_EQ(response.Status, 3);
  ASSERT_EQ(response.Parameters.size(), 1u);
  EXPECT_EQ(response.Parameters.at(L"error"), L"disk full");
}

TEST(Response, EmptyMessageStillCreatesErrorEntry) {
  const CResponse response(std::wstring{});
  ASSERT_EQ(response.Parameters.count(L"error"), 1u);
  EXPECT_EQ(response.Parameters.at(L"error"), L"");
}

// An error response holds `status` and the one parameter "error" = "disk full". What Error
// prints is read from a child process (ResponseErrorOutput).
void ExpectDiskFullError(const std::function<CResponse()>& makeError, int status) {
  const CResponse response = makeError();
  EXPECT_EQ(response.Status, status);
  ASSERT_EQ(response.Parameters.size(), 1u);
  EXPECT_EQ(response.Parameters.at(L"error"), L"disk full");
}

TEST(ResponseError, PrintsMessageAndReturnsStatusThree) {
  ExpectDiskFullError([] { return Error(L"disk full"); }, 3);
}

TEST(ResponseError, WithStatusPrintsMessageAndSetsStatus) {
  ExpectDiskFullError([] { return Error(Status(7), L"disk full"); }, 7);
}

TEST(ResponseError, EmptyMessageGivesAnEmptyErrorParameter) {
  const CResponse response = Error(L"");
  EXPECT_EQ(response.Parameters.at(L"error"), L"");
}

TEST(ResponseErrorOutput, PrintsLinesAndLaterNarrowOutputStillAppears) {
  // Error(L"disk full"), Error(7, L""), then printf and std::cout.
  EXPECT_EQ(pendrel_test::ErrorOutputOfChild("narrow"),
            pendrel_test::AsTextModeLines("disk full\n\nprintf 1\ncout\n"));
}

TEST(ResponseErrorOutput, KeepsItsPlaceBetweenNarrowOutput) {
  EXPECT_EQ(pendrel_test::ErrorOutputOfChild("byte"),
            pendrel_test::AsTextModeLines("before\nmiddle\nafter\n"));
}

TEST(ResponseErrorOutput, LaterWideOutputStillAppearsOnAWideStream) {
  EXPECT_EQ(pendrel_test::ErrorOutputOfChild("wide"),
            pendrel_test::AsTextModeLines("middle\nafter 2\n"));
}

CResponse SampleResponse() {
  CResponse response(Status(9));
  response.Tag = 77;
  response.Session = L"S1";
  response.Parameters[L"RESULT"] = L"ok";
  response.Progress = SampleProgress();
  CMimeFile file;
  file.Type = Pdf;
  file.FileName = L"out.pdf";
  file.Data = std::string("%PDF\0", 5);
  response.Data.push_back(file);
  return response;
}

void ExpectSampleResponse(const CResponse& response) {
  EXPECT_EQ(response.Tag, 77u);
  EXPECT_EQ(response.Status, 9);
  EXPECT_EQ(response.Session, L"S1");
  ASSERT_EQ(response.Parameters.size(), 1u);
  EXPECT_EQ(response.Parameters.at(L"RESULT"), L"ok");
  ExpectSampleProgress(response.Progress);
  ASSERT_EQ(response.Data.size(), 1u);
  EXPECT_EQ(response.Data[0].Type, Pdf);
  EXPECT_EQ(response.Data[0].Data, std::string("%PDF\0", 5));
}

// A moved-from response keeps its scalars and loses its containers.
void ExpectMovedFrom(CResponse& source) {
  EXPECT_TRUE(source.Data.empty());
  EXPECT_TRUE(source.Session.empty());
  EXPECT_TRUE(source.Parameters.empty());
  EXPECT_EQ(source.Status, 9);
  EXPECT_EQ(source.Tag, 77u);
  ExpectSampleProgress(source.Progress);
  source.Parameters[L"new"] = L"entry";
  EXPECT_EQ(source.Parameters.at(L"new"), L"entry");
}

TEST(ResponseCopy, ConstructorIsDeep) {
  const CResponse original = SampleResponse();
  CResponse copy(original);
  ExpectSampleResponse(copy);
  copy.Data[0].Data = "changed";
  copy.Parameters[L"RESULT"] = L"changed";
  EXPECT_EQ(original.Data[0].Data, std::string("%PDF\0", 5));
  EXPECT_EQ(original.Parameters.at(L"RESULT"), L"ok");
}

TEST(ResponseCopy, AssignmentReplacesEverything) {
  const CResponse original = SampleResponse();
  CResponse target(std::wstring(L"old error"));
  target.Data.resize(3);
  target = original;
  ExpectSampleResponse(target);
}

TEST(ResponseCopy, SelfAssignmentKeepsContents) {
  CResponse response = SampleResponse();
  const CResponse& alias = response;
  response = alias;
  ExpectSampleResponse(response);
}

TEST(ResponseMove, ConstructorLeavesScalarsAndEmptiesContainers) {
  CResponse source = SampleResponse();
  CResponse target(std::move(source));
  ExpectSampleResponse(target);
  ExpectMovedFrom(source);
}

TEST(ResponseMove, AssignmentReleasesOldFilesAndEmptiesSource) {
  CResponse source = SampleResponse();
  CResponse target;
  target.Data.resize(2);
  target.Session = L"old";
  target.Parameters[L"old"] = L"x";
  target = std::move(source);
  ExpectSampleResponse(target);
  ExpectMovedFrom(source);
}

TEST(ResponseMove, SelfMoveAssignmentKeepsContents) {
  CResponse response = SampleResponse();
  CResponse& alias = response;
  response = std::move(alias);
  ExpectSampleResponse(response);
}

CMimeFile FileOf(EMimeType type, bool attachment) {
  CMimeFile file;
  file.Type = type;
  file.IsAttachment = attachment;
  return file;
}

TEST(ResponseAttachedFiles, InlineTypesWithoutFlagAreNotAttached) {
  CResponse response;
  EXPECT_FALSE(response.HasAttachedFiles()) << "no files";
  response.Data = {FileOf(Text, false), FileOf(Png, false)};
  EXPECT_FALSE(response.HasAttachedFiles());
  response.Data[1].IsAttachment = true;
  EXPECT_TRUE(response.HasAttachedFiles());
}

TEST(ResponseAttachedFiles, TypesThatCannotBeShownInlineAreAlwaysAttached) {
  for (int value : {0, 1, 7, 8, 11, 42, -1}) {
    CResponse response;
    response.Data = {FileOf(static_cast<EMimeType>(value), false)};
    EXPECT_TRUE(response.HasAttachedFiles()) << value;
  }
  for (EMimeType type : {Json, Text, Jpeg, Png, Gif, Csv, Svg}) {
    CResponse response;
    response.Data = {FileOf(type, false)};
    EXPECT_FALSE(response.HasAttachedFiles()) << type;
  }
}

TEST(ResponseAttachedFiles, SinglePdfWithoutFlagIsAttached) {
  CResponse response;
  response.Data = {FileOf(Pdf, false)};
  EXPECT_TRUE(response.HasAttachedFiles());
}

TEST(Version, IsFour) { EXPECT_EQ(Version, 4u); }

}  // namespace
}  // namespace Pendrel
