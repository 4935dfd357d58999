// ParseJson on arbitrary bytes: it must end without a sanitizer report, and its result must
// be what its header promises: on error an empty root and a message, on success an object,
// an array or nothing.
#include "fuzz/FuzzCheck.h"
#include "json/JsonParser.h"
#include "json/JsonValue.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string error;
  Pendrel::JsonValue root;
  Pendrel::ParseJson(error, root, pendrel_fuzz::AsText(data, size));
  if (!error.empty()) {
    PENDREL_FUZZ_CHECK(root.IsEmpty());
  } else {
    PENDREL_FUZZ_CHECK(root.IsEmpty() || Pendrel::IsObject(root) || Pendrel::IsArray(root));
  }
  return 0;
}
