// The text that starts a handler: its command line, the pipe name in it, and the argument
// list a handler receives on systems that start programs from an argument vector.
//
// Handlers read " _MN_=<pipe name>", " _DM_=<mode>" and " _EX_=2" from their command line;
// the layout is fixed by the handlers already in use.
#pragma once

#include <string>
#include <vector>

namespace CTolvane::detail {

// `path` between double quotes when it holds a blank, a tab or a "+"; otherwise as it
// stands. Quotes already in the path are kept unchanged.
std::wstring QuoteCommandPath(const std::wstring& path);

// QuoteCommandPath(path) " _MN_=" pipeName " _DM_=" mode " _EX_=2", then one blank and
// `extraArguments` when they are not empty.
std::wstring BuildCommandLine(const std::wstring& path, const std::wstring& pipeName, int mode,
                              const std::wstring& extraArguments);

// The argument vector of the same command line: the bare path, "_MN_=…", "_DM_=…",
// "_EX_=2", then the extra arguments split at blanks and tabs, double quotes grouping
// (the quote characters themselves are dropped).
std::vector<std::wstring> BuildArgumentVector(const std::wstring& path,
                                              const std::wstring& pipeName, int mode,
                                              const std::wstring& extraArguments);

// Splits `text` at blanks and tabs outside double quotes; quotes group and are dropped.
std::vector<std::wstring> SplitArguments(const std::wstring& text);

// A fresh pipe name: two random values of 0..32767 written one after the other in
// upper-case hexadecimal without leading zeros (2 to 8 digits), e.g. "1A2F7C3".
std::wstring MakePipeName();

}  // namespace CTolvane::detail
