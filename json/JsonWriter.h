// The JSON writer: turns a JsonValue tree into UTF-8 text.
//
// Strings are escaped with the eight escapes of the JSON layer and nothing else (no "\u"
// escapes; other control bytes and bytes of 0x80 and above go out raw). Member names are
// written exactly as stored, without escaping, and an empty handle writes nothing at all, so
// {"a":} is what an object with an empty member gives: handlers rely on this output, however
// odd. Writing never recurses, so trees of any depth can be written. Pure functions; any
// thread may call them on trees it owns.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "json/JsonValue.h"

namespace Pendrel {

// Layout of the written text.
struct JsonWriteStyle {
  bool indent;                // whether nested lines are indented
  std::uint32_t indentWidth;  // characters per level
  char indentChar;
  const char* lineBreak;   // after "{", "[" and ",", and before "}" and "]"; nullptr: none
  const char* afterColon;  // between a name's ":" and its value; nullptr: none
};

// No white space at all; what every document of the system is written with.
inline constexpr JsonWriteStyle kCompactJsonStyle{false, 0, ' ', "", ""};

// `text` with each of the eight escaped bytes replaced by its backslash pair.
std::string EscapeJsonText(std::string_view text);

// Serialises `value` into `out`. The text is written over `out` from its start: callers pass
// an empty string and get exactly the serialisation; a longer `out` keeps the tail beyond the
// written text. Nothing but running out of memory makes it fail.
void WriteJson(const JsonWriteStyle& style, const JsonValue& value, std::string& out);

}  // namespace Pendrel
