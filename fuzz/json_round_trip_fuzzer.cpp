// Parse, write, parse, write: the two written texts must be identical, and the second parse
// must succeed. Once a text has been through the parser and the writer, it is in the form
// the writer gives, and a second pass must not change it.
//
// One exception is by design: the writer puts member names out exactly as stored, without
// escapes (handlers rely on that), so a name holding a quote or a backslash cannot come back
// unchanged. Trees with such names are still parsed and written, but not compared.
#include <string>
#include <vector>

#include "fuzz/FuzzCheck.h"
#include "json/JsonParser.h"
#include "json/JsonValue.h"
#include "json/JsonWriter.h"

namespace {

using Pendrel::JsonValue;

// Whether every member name can be written and read back as it is. Iterative, as trees may
// be nested as deep as the input is long.
bool NamesSurviveWriting(const JsonValue& root) {
  std::vector<const JsonValue*> pending{&root};
  while (!pending.empty()) {
    const JsonValue* value = pending.back();
    pending.pop_back();
    for (const Pendrel::JsonMember& member : Pendrel::Members(*value)) {
      if (member.name.find_first_of("\"\\") != std::string::npos) return false;
      pending.push_back(&member.value);
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string error;
  JsonValue first;
  Pendrel::ParseJson(error, first, pendrel_fuzz::AsText(data, size));
  if (!error.empty()) return 0;

  std::string firstText;
  Pendrel::WriteJson(Pendrel::kCompactJsonStyle, first, firstText);
  if (!NamesSurviveWriting(first)) return 0;

  std::string againError;
  JsonValue second;
  Pendrel::ParseJson(againError, second, firstText);
  PENDREL_FUZZ_CHECK(againError.empty());
  std::string secondText;
  Pendrel::WriteJson(Pendrel::kCompactJsonStyle, second, secondText);
  PENDREL_FUZZ_CHECK(secondText == firstText);
  return 0;
}
