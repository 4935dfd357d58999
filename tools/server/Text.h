// Text of the server: UTF-8 on the wire against the wide strings of the records (the
// programs' shared conversions), and JSON string literals. Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

#include "tools/text/Utf8Text.h"

namespace PendrelServer {

using PendrelTools::Utf8FromWide;
using PendrelTools::WideFromUtf8;

// `text` as a JSON string literal, quotes included (control characters escaped).
std::string JsonQuoted(std::string_view text);

}  // namespace PendrelServer
