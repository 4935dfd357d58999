// The JSON parser: reads a UTF-8 text into a JsonValue tree.
//
// Lenient, as handlers write it: comments, literals in any case, a loose number syntax,
// white space inside bare words, commas that are optional between values and accepted before
// "}", and only the writer's eight string escapes (see json/detail/JsonTokenizer.h). The root
// of a successful parse is an object or an array. The first structural problem, in the order
// of the text, is reported as an English message; input that simply ends inside open
// containers is not a problem. Nesting is limited only by memory: nothing recurses. Any
// thread may parse into trees it owns.
#pragma once

#include <string>
#include <string_view>

#include "json/JsonValue.h"

namespace Pendrel {

// Parses `input`. On success `result` is the last container closed at the top level (the
// empty handle when none was) and `errorText` is left as it was. On error `result` becomes
// the empty handle and `errorText` the message, one of:
//   "Unknown token: " + text            a bare word that is no literal and no number; the
//                                       text is the first value still queued, normally the
//                                       word, but the string in abc"def"
//   "Extra comma in array"              a comma directly before "]"
//   "Missing data for value"            (a value token without its value; kept as a check)
//   "A name has to be a string"         something other than a quoted string before ":"
//   "Outermost node must be an object or array"
//   "Found end of object or array without beginning"
//   "Mismatched end and beginning of object"   "}" closing an array
//   "Mismatched end and beginning of array"    "]" closing an object
//   "Can only add elements to objects and arrays"   (kept as a check)
// Only running out of memory throws.
void ParseJson(std::string& errorText, JsonValue& result, std::string_view input);

// ParseJson, with the first string of a megabyte or more (normally a file's contents) read
// in place: unescaped within `input`'s buffer, which then becomes that string's value, so it
// takes neither new memory nor a copy. The result is the same as ParseJson's; `input` is
// left in an unspecified state.
void ParseJsonInPlace(std::string& errorText, JsonValue& result, std::string& input);

}  // namespace Pendrel
