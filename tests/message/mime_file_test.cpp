#include "message/CMimeFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/support/PatternBytes.h"
#include "tests/support/TempDir.h"

namespace Pendrel {
namespace {

using pendrel_test::TempDir;

constexpr bool kWindows =
#if defined(_WIN32)
    true;
#else
    false;
#endif

TEST(MimeTypeName, OctetStreamForNoneBinaryAndOutOfRange) {
  EXPECT_EQ(GetMimeTypeName(Binary), "application/octet-stream");
  EXPECT_EQ(GetMimeTypeName(None), "application/octet-stream");
  EXPECT_EQ(GetMimeTypeName(static_cast<EMimeType>(42)), "application/octet-stream");
  EXPECT_EQ(GetMimeTypeName(static_cast<EMimeType>(-1)), "application/octet-stream");
  EXPECT_EQ(GetMimeTypeName(static_cast<EMimeType>(11)), "application/octet-stream");
}

struct NameRow {
  EMimeType type;
  const char* name;
};

constexpr NameRow kNames[] = {
    {Json, "application/json"}, {Text, "text/plain"},
    {Jpeg, "image/jpeg"},       {Png, "image/png"},
    {Gif, "image/gif"},         {Pdf, "application/pdf"},
    {Zip, "application/zip"},   {Csv, "text/csv"},
    {Svg, "image/svg+xml"},     {Binary, "application/octet-stream"},
};

TEST(MimeTypeName, NamesEveryKnownType) {
  for (const NameRow& row : kNames) {
    EXPECT_EQ(GetMimeTypeName(row.type), row.name) << row.type;
  }
}

TEST(MimeType, IsTheInverseOfTheNameForAllElevenValues) {
  for (int value = 0; value <= 10; ++value) {
    const auto type = static_cast<EMimeType>(value);
    // None shares its name with Binary, and Binary comes first.
    EXPECT_EQ(GetMimeType(GetMimeTypeName(type)), value == 0 ? Binary : type) << value;
  }
}

TEST(MimeType, MatchesExactlyWithoutFoldingOrTrimming) {
  EXPECT_EQ(GetMimeType("image/svg+xml"), Svg);
  EXPECT_EQ(GetMimeType("IMAGE/PNG"), Binary);
  EXPECT_EQ(GetMimeType(""), Binary);
  EXPECT_EQ(GetMimeType("Application/JSON"), Binary);
  EXPECT_EQ(GetMimeType("application/json; charset=utf-8"), Binary);
  EXPECT_EQ(GetMimeType(" text/plain"), Binary);
  EXPECT_EQ(GetMimeType(std::string("text/plain\0", 11)), Binary);
  EXPECT_EQ(GetMimeType("application/octet-stream"), Binary);
}

struct ExtensionRow {
  const wchar_t* fileName;
  EMimeType type;
};

constexpr ExtensionRow kExtensions[] = {
    {L"a.jpg", Jpeg}, {L"a.png", Png}, {L"a.gif", Gif}, {L"a.json", Json}, {L"a.txt", Text},
    {L"a.pdf", Pdf},  {L"a.zip", Zip}, {L"a.csv", Csv}, {L"a.svg", Svg},   {L"a.svgz", Svg},
};

TEST(MimeTypeByFileExt, RecognisesEveryExtensionRow) {
  for (const ExtensionRow& row : kExtensions) {
    EXPECT_EQ(GetMimeTypeByFileExt(row.fileName), row.type);
  }
}

TEST(MimeTypeByFileExt, UsesLastDotAndExactCase) {
  EXPECT_EQ(GetMimeTypeByFileExt(L"C:\\data\\scan.jpg"), Jpeg);
  EXPECT_EQ(GetMimeTypeByFileExt(L"scan.JPG"), Binary);
  EXPECT_EQ(GetMimeTypeByFileExt(L"report.Pdf"), Binary);
  EXPECT_EQ(GetMimeTypeByFileExt(L"archive.tar.zip"), Zip);
  EXPECT_EQ(GetMimeTypeByFileExt(L"a.b.PNG"), Binary);
  EXPECT_EQ(GetMimeTypeByFileExt(L"photo.jpeg"), Binary);
  EXPECT_EQ(GetMimeTypeByFileExt(L"page.htm"), Binary);
  EXPECT_EQ(GetMimeTypeByFileExt(L"data.xml"), Binary);
}

TEST(MimeTypeByFileExt, BareExtensionIsRecognised) {
  EXPECT_EQ(GetMimeTypeByFileExt(L"csv"), Csv);
  EXPECT_EQ(GetMimeTypeByFileExt(L"svgz"), Svg);
  EXPECT_EQ(GetMimeTypeByFileExt(L".txt"), Text);
}

TEST(MimeTypeByFileExt, EmptyNameGivesBinary) { EXPECT_EQ(GetMimeTypeByFileExt(L""), Binary); }

TEST(MimeTypeClasses, TextAndImageSets) {
  EXPECT_TRUE(MimeTypeIsText(Csv));
  EXPECT_FALSE(MimeTypeIsText(Svg));
  EXPECT_TRUE(MimeTypeIsImage(Svg));
  EXPECT_FALSE(MimeTypeIsImage(Pdf));
  for (int value = -1; value <= 12; ++value) {
    const auto type = static_cast<EMimeType>(value);
    EXPECT_EQ(MimeTypeIsText(type), value == 2 || value == 3 || value == 9) << value;
    EXPECT_EQ(MimeTypeIsImage(type), (value >= 4 && value <= 6) || value == 10) << value;
  }
}

TEST(MimeFile, DefaultIsAnUnnamedTextAttachment) {
  const CMimeFile file;
  EXPECT_EQ(file.Type, Text);
  EXPECT_TRUE(file.FileName.empty());
  EXPECT_TRUE(file.Name.empty());
  EXPECT_TRUE(file.Data.empty());
  EXPECT_TRUE(file.IsAttachment);
}

TEST(MimeFile, CopiesAndMovesMemberWise) {
  CMimeFile file;
  file.Type = Pdf;
  file.FileName = L"a.pdf";
  file.Name = L"a";
  file.Data = std::string("x\0y", 3);
  file.IsAttachment = false;
  CMimeFile copy = file;
  EXPECT_EQ(copy.Type, Pdf);
  EXPECT_EQ(copy.FileName, L"a.pdf");
  EXPECT_EQ(copy.Name, L"a");
  EXPECT_EQ(copy.Data, std::string("x\0y", 3));
  EXPECT_FALSE(copy.IsAttachment);
  CMimeFile moved = std::move(copy);
  EXPECT_EQ(moved.Data, std::string("x\0y", 3));
  EXPECT_EQ(moved.FileName, L"a.pdf");
}

// The path "<tmp>\in\plan.v2.pdf": on Windows a real folder "in"; elsewhere "\" may stand in
// a file name, so the file is literally named "C:\in\plan.v2.pdf".
std::wstring BackslashPath(TempDir& dir, const std::string& content) {
  if (kWindows) {
    dir.Write(std::filesystem::path("in") / "plan.v2.pdf", content);
    return dir.path().wstring() + L"\\in\\plan.v2.pdf";
  }
  dir.Write("C:\\in\\plan.v2.pdf", content);
  return dir.path().wstring() + L"/C:\\in\\plan.v2.pdf";
}

// The four fields LoadFromFile sets (or, when it fails, leaves as they were).
void ExpectFields(const CMimeFile& file, const std::wstring& fileName, const std::wstring& name,
                  EMimeType type, const std::string& data) {
  EXPECT_EQ(file.FileName, fileName);
  EXPECT_EQ(file.Name, name);
  EXPECT_EQ(file.Type, type);
  EXPECT_TRUE(file.Data == data) << file.Data.size() << " bytes";
}

TEST(MimeFileLoad, TakesNameAfterLastBackslashAndTypeFromExtension) {
  TempDir dir;
  const std::string content("%PDF\0\x01\xff", 7);
  const std::wstring path = BackslashPath(dir, content);
  CMimeFile file;
  file.IsAttachment = false;
  ASSERT_TRUE(file.LoadFromFile(path));
  ExpectFields(file, L"plan.v2.pdf", L"plan.v2", Pdf, content);
  EXPECT_FALSE(file.IsAttachment) << "LoadFromFile does not touch IsAttachment";
}

TEST(MimeFileLoad, ZeroLengthFileGivesEmptyData) {
  TempDir dir;
  const std::filesystem::path full = dir.Write("empty.txt", "");
  CMimeFile file;
  file.Data = "old";
  ASSERT_TRUE(file.LoadFromFile(full.wstring()));
  EXPECT_TRUE(file.Data.empty());
  EXPECT_EQ(file.Type, Text);
  EXPECT_EQ(file.Name, L"empty");
}

TEST(MimeFileLoad, ForwardSlashSeparatesOnlyOutsideWindows) {
  TempDir dir;
  dir.Write(std::filesystem::path("in") / "plan.pdf", "x");
  // Forward slashes only, also on Windows ("C:/users/.../in/plan.pdf").
  const std::wstring path = dir.path().generic_wstring() + L"/in/plan.pdf";
  CMimeFile file;
  ASSERT_TRUE(file.LoadFromFile(path));
  if (kWindows) {
    EXPECT_EQ(file.FileName, path) << "a \"/\" does not separate on Windows";
    EXPECT_EQ(file.Name, path.substr(0, path.rfind(L'.')));
  } else {
    EXPECT_EQ(file.FileName, L"plan.pdf");
    EXPECT_EQ(file.Name, L"plan");
  }
  EXPECT_EQ(file.Type, Pdf);
  EXPECT_EQ(file.Data, "x");
}

TEST(MimeFileLoad, MissingFileGivesFalseAndLeavesRecordUnchanged) {
  TempDir dir;
  CMimeFile file;
  file.FileName = L"keep.txt";
  file.Name = L"keep";
  file.Data = "kept";
  file.Type = Csv;
  EXPECT_FALSE(file.LoadFromFile(dir.path().wstring() + L"/absent.txt"));
  ExpectFields(file, L"keep.txt", L"keep", Csv, "kept");
}

TEST(MimeFileLoad, FolderGivesFalseAndLeavesRecordUnchanged) {
  TempDir dir;
  for (const wchar_t* name : {L"archive.v2", L"folder"}) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(name)));
    std::filesystem::create_directory(dir.path() / name);
    CMimeFile file;
    file.FileName = L"keep.txt";
    file.Name = L"keep";
    file.Data = "kept";
    file.Type = Csv;
    EXPECT_FALSE(file.LoadFromFile(dir.WidePath(name)));
    ExpectFields(file, L"keep.txt", L"keep", Csv, "kept");
  }
}

TEST(MimeFileLoad, NameWithoutDotThrowsAfterReplacingNamesAndClosesTheFile) {
  TempDir dir;
  const std::filesystem::path full = dir.Write("README", "text");
  CMimeFile file;
  file.Data = "old";
  file.Type = Png;
  EXPECT_THROW(file.LoadFromFile(full.wstring()), std::out_of_range);
  ExpectFields(file, L"README", L"README", Png, "old");
  // Windows refuses to delete a file that is still open.
  std::error_code error;
  EXPECT_TRUE(std::filesystem::remove(full, error)) << error.message();
}

TEST(MimeFileLoad, ReadsNonAsciiFileNames) {
  TempDir dir;
  dir.Write(std::filesystem::u8path("r\xc3\xa9sum\xc3\xa9.csv"), "a,b\n");
  CMimeFile file;
  ASSERT_TRUE(file.LoadFromFile(dir.WidePath(L"r\u00e9sum\u00e9.csv")));
  ExpectFields(file, L"r\u00e9sum\u00e9.csv", L"r\u00e9sum\u00e9", Csv, "a,b\n");
}

TEST(MimeFileLoad, ReadsLargeBinaryFileExactly) {
  TempDir dir;
  const std::string content = pendrel_test::PatternBytes(3 * 1024 * 1024 + 17);
  const std::filesystem::path full = dir.Write("blob.zip", content);
  CMimeFile file;
  ASSERT_TRUE(file.LoadFromFile(full.wstring()));
  EXPECT_EQ(file.Type, Zip);
  EXPECT_TRUE(file.Data == content);
}

TEST(Keywords, EachHoldsItsOwnName) {
  const std::pair<const std::wstring*, const wchar_t*> keywords[] = {
      {&REF, L"REF"},   {&SIMPLEX, L"SIMPLEX"}, {&DUPLEX, L"DUPLEX"}, {&JOB, L"JOB"},
      {&PING, L"PING"}, {&TRACK, L"TRACK"},     {&START, L"START"},   {&STOP, L"STOP"},
      {&PATH, L"PATH"}, {&DATA, L"DATA"},       {&FILE, L"FILE"},     {&INFO, L"INFO"},
      {&MSG, L"MSG"},   {&FINISH, L"FINISH"},   {&SHOT, L"SHOT"},     {&WFRAME, L"WFRAME"},
      {&IMG, L"IMG"},   {&VALUE, L"VALUE"},     {&TASK, L"TASK"},     {&TYPE, L"TYPE"},
      {&LANG, L"LANG"}, {&LINK, L"LINK"},       {&REASON, L"REASON"}, {&TIMEOUT, L"TIMEOUT"},
      {&TEXT, L"TEXT"}, {&PARAM, L"PARAM"},     {&STATUS, L"STATUS"}, {&FOLDER, L"FOLDER"},
  };
  EXPECT_EQ(std::size(keywords), 28u);
  for (const auto& [keyword, name] : keywords) EXPECT_EQ(*keyword, name);
}

}  // namespace
}  // namespace Pendrel
