#include "message/detail/HttpForm.h"

#include <utility>  // std::exchange

#include <cstdint>
#include <string_view>

#include "base/Random.h"
#include "json/TextConversion.h"
#include "message/detail/Base64.h"

namespace Pendrel::detail {
namespace {

// Every boundary starts with this pair; clients look for "------------B0".
constexpr unsigned kBoundaryFirstByte = 0xB0;
constexpr std::size_t kBoundaryRandomBytes = 11;

// `; name="…"` when `name` is not empty. Names go out unescaped, as clients expect.
void AppendQuotedParameter(std::string& out, std::string_view parameter,
                           const std::wstring& value) {
  if (value.empty()) return;
  out += parameter;
  out += Utf16ToUtf8(value);
  out += '"';
}

void AppendSingleFileHeader(const CMimeFile& file, std::string& header) {
  header = "Content-Type: ";
  header += GetMimeTypeName(file.Type);
  // Only JSON and plain text carry a charset; CSV goes without one.
  if (file.Type == Json || file.Type == Text) header += "; charset=utf-8";
  AppendQuotedParameter(header, "; name=\"", file.Name);
  header += "\nContent-Disposition: inline";
  AppendQuotedParameter(header, "; filename=\"", file.FileName);
}

void AppendPart(const CMimeFile& file, std::string_view delimiter, std::string& body) {
  body += delimiter;
  body += "Content-Type: ";
  body += GetMimeTypeName(file.Type);
  AppendQuotedParameter(body, "; name=\"", file.Name);
  body += "\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: inline";
  AppendQuotedParameter(body, "; filename=\"", file.FileName);
  body += "\r\n\r\n";
  AppendBase64Lines(body, file.Data);
  body += "\r\n";
}

void WriteMultipart(const std::vector<CMimeFile>& files, std::string& header, std::string& body) {
  const std::string boundary = MakeBoundary();
  header =
      "Content-Type: multipart/mixed; boundary=\"" + boundary + "\"\nContent-Disposition: inline";
  const std::string delimiter = "--" + boundary + "\r\n";

  // One allocation for the whole body: part headers are small next to the base64 text.
  constexpr std::size_t kPartHeaderEstimate = 160;
  std::size_t size = boundary.size() + 6;
  for (const CMimeFile& file : files) {
    size += delimiter.size() + kPartHeaderEstimate + 3 * (file.Name.size() + file.FileName.size()) +
            Base64LinesLength(file.Data.size());
  }
  body.reserve(size);

  for (const CMimeFile& file : files) AppendPart(file, delimiter, body);
  body += "--";
  body += boundary;
  body += "--\r\n";
}

}  // namespace

std::string MakeBoundary() {
  unsigned char bytes[kBoundaryRandomBytes];
  std::uint64_t bits = base::RandomBits();
  for (std::size_t i = 0; i < kBoundaryRandomBytes; ++i) {
    if (i == 8) bits = base::RandomBits();
    bytes[i] = static_cast<unsigned char>(bits);
    bits >>= 8;
  }
  return FormatString("------------%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X",
                      kBoundaryFirstByte, bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
                      bytes[5], bytes[6], bytes[7], bytes[8], bytes[9], bytes[10]);
}

void WriteFilesHttpForm(const std::vector<CMimeFile>& files, std::string& header,
                        std::string& body) {
  body.clear();
  header.clear();
  if (files.size() == 1) {
    AppendSingleFileHeader(files.front(), header);
    body = files.front().Data;
  } else {
    WriteMultipart(files, header, body);
  }
}

std::wstring TakeResourceSegment(std::wstring& path) {
  if (!path.empty() && path.front() == L'/') path.erase(0, 1);
  if (path.empty()) return std::wstring();
  const std::size_t slash = path.find(L'/');
  if (slash == std::wstring::npos) return std::exchange(path, std::wstring());
  std::wstring segment = path.substr(0, slash);
  path.erase(0, slash + 1);
  return segment;
}

}  // namespace Pendrel::detail
