// Utf8ToUtf16 on arbitrary bytes, and the way back. What the reader makes of any bytes is a
// wide text that the writer and the reader carry unchanged, except the unit 0xFFFF, which
// the writer drops (where wchar_t is 32 bits, halves it kept apart then read back joined);
// the terminating writer stops at the first zero unit.
#include <string>

#include "fuzz/FuzzCheck.h"
#include "json/TextConversion.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input = pendrel_fuzz::AsText(data, size);
  const std::wstring wide = Pendrel::Utf8ToUtf16(input);
  PENDREL_FUZZ_CHECK(wide.size() <= input.size());

  std::wstring kept;
  for (const wchar_t unit : wide) {
    PENDREL_FUZZ_CHECK(static_cast<unsigned long>(unit) <= 0x10FFFF);
    if (unit != 0xFFFF) kept += unit;
  }
  PENDREL_FUZZ_CHECK(Pendrel::AsDecodedText(wide) == wide);
  const std::string bytes = Pendrel::Utf16ToUtf8(wide);
  PENDREL_FUZZ_CHECK(bytes == Pendrel::Utf16ToUtf8(kept));
  PENDREL_FUZZ_CHECK(Pendrel::Utf8ToUtf16(bytes) == Pendrel::AsDecodedText(kept));

  const std::string terminated = Pendrel::Utf16ToUtf8Terminated(wide);
  PENDREL_FUZZ_CHECK(terminated == bytes.substr(0, bytes.find('\0')));
  return 0;
}
