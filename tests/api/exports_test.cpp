// The public interface used the way a host uses it: through the shared library.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "message/CMimeFile.h"
#include "message/CRequest.h"
#include "message/CResponse.h"
#include "tests/support/TempDir.h"

namespace {

TEST(SharedLibrary, ExportsVersion) { EXPECT_EQ(Pendrel::Version, 4u); }

TEST(SharedLibrary, ExportsKeywordsBuiltAtLoad) {
  EXPECT_EQ(Pendrel::SIMPLEX, L"SIMPLEX");
  EXPECT_EQ(Pendrel::FOLDER, L"FOLDER");
}

TEST(SharedLibrary, ExportsMimeFunctions) {
  EXPECT_EQ(Pendrel::GetMimeTypeName(Pendrel::Svg), "image/svg+xml");
  EXPECT_EQ(Pendrel::GetMimeType("text/csv"), Pendrel::Csv);
  EXPECT_EQ(Pendrel::GetMimeTypeByFileExt(L"x.svgz"), Pendrel::Svg);
  EXPECT_TRUE(Pendrel::MimeTypeIsImage(Pendrel::Gif));
  EXPECT_TRUE(Pendrel::MimeTypeIsText(Pendrel::Json));
}

TEST(SharedLibrary, RecordsCrossTheBoundary) {
  Pendrel::CRequest request;
  request.Command = L"JOB";
  request.RequestParams[L"LANG"] = L"en";
  const Pendrel::CRequest copy = request;
  EXPECT_TRUE(copy.IsCreationSession());
  EXPECT_EQ(copy.GetRequestParamsString(), L"?lang=en");

  Pendrel::CResponse response(std::wstring(L"failed"));
  Pendrel::CResponse moved = std::move(response);
  EXPECT_EQ(moved.Parameters.at(L"error"), L"failed");
  EXPECT_TRUE(response.Parameters.empty());
}

TEST(SharedLibrary, ExceptionOfLoadFromFileReachesTheHost) {
  pendrel_test::TempDir dir;
  const auto path = dir.Write("noextension", "x");
  Pendrel::CMimeFile file;
  EXPECT_THROW(file.LoadFromFile(path.wstring()), std::out_of_range);
  EXPECT_EQ(file.FileName, L"noextension");
}

}  // namespace
