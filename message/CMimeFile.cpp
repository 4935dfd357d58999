#include "message/CMimeFile.h"

#include <array>
#include <cstdio>
#include <stdexcept>
#include <string_view>

#include "base/FileOpen.h"

namespace Pendrel {

// Copy-initialised: on Windows TEXT is also a function-like macro.
const std::wstring REF = L"REF";
const std::wstring SIMPLEX = L"SIMPLEX";
const std::wstring DUPLEX = L"DUPLEX";
const std::wstring JOB = L"JOB";
const std::wstring PING = L"PING";
const std::wstring TRACK = L"TRACK";
const std::wstring START = L"START";
const std::wstring STOP = L"STOP";
const std::wstring PATH = L"PATH";
const std::wstring DATA = L"DATA";
const std::wstring FILE = L"FILE";
const std::wstring INFO = L"INFO";
const std::wstring MSG = L"MSG";
const std::wstring FINISH = L"FINISH";
const std::wstring SHOT = L"SHOT";
const std::wstring WFRAME = L"WFRAME";
const std::wstring IMG = L"IMG";
const std::wstring VALUE = L"VALUE";
const std::wstring TASK = L"TASK";
const std::wstring TYPE = L"TYPE";
const std::wstring LANG = L"LANG";
const std::wstring LINK = L"LINK";
const std::wstring REASON = L"REASON";
const std::wstring TIMEOUT = L"TIMEOUT";
const std::wstring TEXT = L"TEXT";
const std::wstring PARAM = L"PARAM";
const std::wstring STATUS = L"STATUS";
const std::wstring FOLDER = L"FOLDER";

namespace {

constexpr std::string_view kOctetStream = "application/octet-stream";

// MIME names by type value; GetMimeTypeName reads it forwards, GetMimeType searches it.
constexpr std::array<std::string_view, 11> kMimeNames = {
    kOctetStream,        // None
    kOctetStream,        // Binary
    "application/json",  // Json
    "text/plain",        // Text
    "image/jpeg",        // Jpeg
    "image/png",         // Png
    "image/gif",         // Gif
    "application/pdf",   // Pdf
    "application/zip",   // Zip
    "text/csv",          // Csv
    "image/svg+xml",     // Svg
};

struct ExtensionRow {
  std::wstring_view extension;
  EMimeType type;
};

// First matching row wins; matched exactly and case-sensitively.
constexpr std::array<ExtensionRow, 10> kExtensions = {{
    {L".jpg", Jpeg},
    {L".png", Png},
    {L".gif", Gif},
    {L".json", Json},
    {L".txt", Text},
    {L".pdf", Pdf},
    {L".zip", Zip},
    {L".csv", Csv},
    {L".svg", Svg},
    {L".svgz", Svg},
}};

EMimeType TypeOfExtension(std::wstring_view extension) {
  for (const ExtensionRow& row : kExtensions) {
    if (row.extension == extension) return row.type;
  }
  return Binary;
}

}  // namespace

std::string GetMimeTypeName(EMimeType type) {
  const auto index = static_cast<std::uint32_t>(type);
  return std::string(index < kMimeNames.size() ? kMimeNames[index] : kOctetStream);
}

EMimeType GetMimeType(const std::string& name) {
  // From Binary upwards, so "application/octet-stream" gives Binary, never None.
  for (std::size_t value = Binary; value < kMimeNames.size(); ++value) {
    if (kMimeNames[value] == name) return static_cast<EMimeType>(value);
  }
  return Binary;
}

EMimeType GetMimeTypeByFileExt(const std::wstring& fileName) {
  const std::size_t dot = fileName.rfind(L'.');
  if (dot != std::wstring::npos) return TypeOfExtension(std::wstring_view(fileName).substr(dot));
  return TypeOfExtension(L"." + fileName);
}

bool MimeTypeIsImage(EMimeType type) {
  return type == Jpeg || type == Png || type == Gif || type == Svg;
}

bool MimeTypeIsText(EMimeType type) { return type == Json || type == Text || type == Csv; }

bool CMimeFile::LoadFromFile(const std::wstring& path) {
  base::FilePtr file = base::OpenForBinaryRead(path);
  if (!file) return false;

  std::size_t nameStart = path.size();
  while (nameStart > 0 && !base::IsPathSeparator(path[nameStart - 1])) --nameStart;
  FileName = path.substr(nameStart);
  const std::size_t dot = FileName.rfind(L'.');
  Name = FileName.substr(0, dot);
  if (dot == std::wstring::npos) {
    // A file without an extension is an error for callers; the stream closes on the way out.
    throw std::out_of_range("invalid string position");
  }
  Type = GetMimeTypeByFileExt(FileName.substr(dot));

  std::FILE* stream = file.get();
  if (std::fseek(stream, 0, SEEK_END) != 0) return false;
  const long size = std::ftell(stream);
  if (size < 0 || std::fseek(stream, 0, SEEK_SET) != 0) return false;
  Data.resize(static_cast<std::size_t>(size));
  // One read straight into the record; a file that shrank meanwhile leaves no stale bytes.
  Data.resize(std::fread(Data.data(), 1, Data.size(), stream));
  return true;
}

}  // namespace Pendrel
