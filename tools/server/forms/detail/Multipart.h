// A single-pass reader of multipart bodies (RFC 2046) held in memory: it finds the parts
// and their header fields and hands out each part's content as a view into the body, so
// binary and base64 parts alike cost no copy until the caller decodes them.
//
// Line ends are CRLF or a bare LF. A preamble before the first boundary line and an epilogue
// after the closing one are ignored; blanks after a boundary are allowed.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace PendrelServer::detail {

// The most parts one body may hold, and the most bytes of header fields one part may hold.
inline constexpr std::size_t kMaxMultipartParts = 10000;
inline constexpr std::size_t kMaxPartHeaderBytes = 16 * 1024;

struct CMultipartPart {
  // Header fields in order: names lower-cased, values unfolded and trimmed.
  std::vector<std::pair<std::string, std::string>> Fields;
  std::string_view Content;  // into the body

  // The value of field `name` (lower case), or nullptr; the first of duplicates wins.
  const std::string* Find(std::string_view name) const;
};

// Called once per part, in order. Returns false, with `problem` set, to stop the reading.
using MultipartPartHandler = std::function<bool(CMultipartPart& part, std::string& problem)>;

// Reads `body` as a multipart body with `boundary` and calls `onPart` for each part. Returns
// false with `problem` set (English) when the body holds no boundary line, a part's header
// fields cannot be read or are too long, there are too many parts, the closing boundary line
// is missing, or `onPart` returned false.
bool ReadMultipart(std::string_view body, std::string_view boundary,
                   const MultipartPartHandler& onPart, std::string& problem);

}  // namespace PendrelServer::detail
