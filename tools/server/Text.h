// Text of the server: UTF-8 on the wire against the wide strings of the records (the
// programs' shared conversions), and JSON string literals. Pure functions; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/text/Utf8Text.h"

namespace PendrelServer {

using PendrelTools::Utf8FromWide;
using PendrelTools::WideFromUtf8;

// `text` as a JSON string literal, quotes included (control characters escaped).
std::string JsonQuoted(std::string_view text);

// Appenders for the access log, one line a request: the same text as printf's, without its
// format parsing.
// `value` in decimal ("%llu").
void AppendDecimal(std::string& out, std::uint64_t value);
// `value` (0 or more) with six decimals, rounded to the nearest microsecond ("%.6f").
void AppendFixed6(std::string& out, double value);
// `time` in UTC to the millisecond: "2026-11-23T08:30:00.123Z".
void AppendUtcTime(std::string& out, std::chrono::system_clock::time_point time);
// `value` as 16 lower-case hexadecimal digits, zeros in front ("%016llx").
void AppendHex16(std::string& out, std::uint64_t value);

}  // namespace PendrelServer
