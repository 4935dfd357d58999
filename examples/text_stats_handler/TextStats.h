// The work of the example handler, apart from the protocol: counting the lines, words and
// bytes of a text, turning CSV into JSON, and the text conversions that go with them.
//
// Pure functions on bytes (UTF-8 text); any thread may call them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace TextStats {

struct CCounts {
  std::uint64_t Lines = 0;  // line feeds, plus one for a last line without one
  std::uint64_t Words = 0;  // runs of bytes other than ASCII blanks, tabs and line ends
  std::uint64_t Bytes = 0;
};

CCounts CountText(std::string_view text);

// The counts of one input file, named.
struct CFileCounts {
  std::string FileName;  // UTF-8
  CCounts Counts;
};

// The counts as a CSV table, "file,lines,words,bytes" and one line per file, "\n" line ends.
std::string CountsCsv(const std::vector<CFileCounts>& files);

// The counts as a JSON array, one object {"file", "lines", "words", "bytes"} per line.
std::string CountsJson(const std::vector<CFileCounts>& files);

// The records of a CSV text: fields split at `delimiter`, records at "\n" or "\r\n", a field
// in double quotes may hold the delimiter, line ends and doubled quotes (""); a UTF-8 byte
// order mark at the start and empty lines are skipped.
std::vector<std::vector<std::string>> ParseCsv(std::string_view text, char delimiter);

// The CSV text as a JSON array of objects, one per record after the first, one per line;
// the first record names the members ("column<N>" past its end, counting from 1). Every
// value is a JSON string, so nothing is lost.
std::string CsvToJson(std::string_view text, char delimiter);

// `text` as a JSON string literal: in double quotes, with quote, backslash and control
// characters escaped and every other byte as it is.
std::string JsonString(std::string_view text);

// UTF-8 and the wide strings of the records. A character above U+FFFF is a surrogate pair
// where wchar_t is 16 bits wide; invalid bytes become U+FFFD.
std::string Utf8(std::wstring_view text);
std::wstring Wide(std::string_view text);

}  // namespace TextStats
