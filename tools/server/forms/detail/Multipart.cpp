#include "tools/server/forms/detail/Multipart.h"

#include <cstring>  // std::memchr, std::memcmp

#include "tools/server/forms/detail/HeaderField.h"  // AsciiLower, TrimBlanks

namespace PendrelServer::detail {
namespace {

constexpr std::size_t npos = std::string_view::npos;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// The first `delimiter` (which starts with "\n") in `body` at or after `pos`. memchr finds the
// line ends: the content between them, megabytes of it, is never looked at byte by byte.
std::size_t FindDelimiter(std::string_view body, std::string_view delimiter, std::size_t pos) {
  while (pos < body.size() && body.size() - pos >= delimiter.size()) {
    const void* hit =
        std::memchr(body.data() + pos, delimiter.front(), body.size() - pos - delimiter.size() + 1);
    if (hit == nullptr) return npos;
    pos = static_cast<std::size_t>(static_cast<const char*>(hit) - body.data());
    if (std::memcmp(body.data() + pos, delimiter.data(), delimiter.size()) == 0) return pos;
    ++pos;
  }
  return npos;
}

// After a boundary's text at `pos`: "--" (the closing line; sets `closing`), or blanks and a
// line end (sets `next` past it). False when something else follows: then the text at `pos`
// was not a boundary line.
bool ReadBoundaryEnd(std::string_view body, std::size_t pos, bool& closing, std::size_t& next) {
  if (body.substr(pos, 2) == "--") {
    closing = true;
    return true;
  }
  closing = false;
  while (pos < body.size() && IsBlank(body[pos])) ++pos;
  if (body.substr(pos, 2) == "\r\n") {
    next = pos + 2;
    return true;
  }
  if (body.substr(pos, 1) == "\n") {
    next = pos + 1;
    return true;
  }
  return false;
}

// The end of the line that starts at `pos` (before its CRLF or LF) and where the next one
// starts; false when no line end follows.
bool FindLineEnd(std::string_view body, std::size_t pos, std::size_t& end, std::size_t& next) {
  const std::size_t lf = body.find('\n', pos);
  if (lf == npos) return false;
  next = lf + 1;
  end = (lf > pos && body[lf - 1] == '\r') ? lf - 1 : lf;
  return true;
}

// Reads the header fields from `pos` up to and including the blank line; sets `pos` to the
// content's first byte.
bool ReadPartFields(std::string_view body, std::size_t& pos, CMultipartPart& part,
                    std::string& problem) {
  const std::size_t start = pos;
  for (;;) {
    std::size_t end;
    std::size_t next;
    if (!FindLineEnd(body, pos, end, next)) {
      problem = "a part's header fields do not end with a blank line";
      return false;
    }
    if (next - start > kMaxPartHeaderBytes) {
      problem = "a part's header fields exceed " + std::to_string(kMaxPartHeaderBytes) + " bytes";
      return false;
    }
    const std::string_view line = body.substr(pos, end - pos);
    pos = next;
    if (line.empty()) return true;
    if (IsBlank(line.front())) {
      // A folded line continues the field before it.
      if (part.Fields.empty()) {
        problem = "a part's header starts with a continuation line";
        return false;
      }
      std::string& value = part.Fields.back().second;
      value += ' ';
      value += TrimBlanks(line);
      continue;
    }
    const std::size_t colon = line.find(':');
    if (colon == npos || TrimBlanks(line.substr(0, colon)).empty()) {
      problem = "a part's header holds a line that is not a field (\"Name: value\")";
      return false;
    }
    part.Fields.emplace_back(AsciiLower(TrimBlanks(line.substr(0, colon))),
                             std::string(TrimBlanks(line.substr(colon + 1))));
  }
}

}  // namespace

const std::string* CMultipartPart::Find(std::string_view name) const {
  for (const auto& [key, value] : Fields) {
    if (key == name) return &value;
  }
  return nullptr;
}

bool ReadMultipart(std::string_view body, std::string_view boundary,
                   const MultipartPartHandler& onPart, std::string& problem) {
  if (boundary.empty() || boundary.find_first_of("\r\n") != npos) {
    problem = "the multipart boundary is empty or holds a line end";
    return false;
  }
  // A boundary line is a line that starts with "--" and the boundary; so every one after the
  // first is searched for together with the line end before it.
  std::string delimiter = "\n--";
  delimiter += boundary;
  const std::string_view dashBoundary = std::string_view(delimiter).substr(1);

  // The first boundary line, after any preamble.
  bool closing = false;
  std::size_t pos = 0;
  std::size_t next = 0;
  std::size_t candidate =
      body.substr(0, dashBoundary.size()) == dashBoundary ? 0 : FindDelimiter(body, delimiter, 0);
  for (;;) {
    if (candidate == npos) {
      problem = "the multipart body holds no boundary line";
      return false;
    }
    const std::size_t text = candidate == 0 && body[0] == '-' ? 0 : candidate + 1;
    if (ReadBoundaryEnd(body, text + dashBoundary.size(), closing, next)) break;
    candidate = FindDelimiter(body, delimiter, text + 1);
  }

  std::size_t parts = 0;
  while (!closing) {
    if (++parts > kMaxMultipartParts) {
      problem =
          "the multipart body holds more than " + std::to_string(kMaxMultipartParts) + " parts";
      return false;
    }
    CMultipartPart part;
    pos = next;
    if (!ReadPartFields(body, pos, part, problem)) return false;
    // The content ends at the line end before the next boundary line. The search starts at
    // the blank line's own LF so that an empty content right after it is found too.
    std::size_t found = FindDelimiter(body, delimiter, pos - 1);
    for (;;) {
      if (found == npos) {
        problem = "the multipart body ends before its closing boundary line";
        return false;
      }
      if (ReadBoundaryEnd(body, found + delimiter.size(), closing, next)) break;
      found = FindDelimiter(body, delimiter, found + 1);
    }
    std::size_t end = found;
    if (end > pos && body[end - 1] == '\r') --end;
    part.Content = body.substr(pos, end > pos ? end - pos : 0);
    if (!onPart(part, problem)) return false;
  }
  return true;
}

}  // namespace PendrelServer::detail
