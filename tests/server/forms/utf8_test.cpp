// Strict UTF-8 of the server's forms.
#include <gtest/gtest.h>

#include <string>

#include "tools/server/forms/detail/Utf8.h"

namespace {

using PendrelServer::detail::DecodeUtf8;
using PendrelServer::detail::EncodeUtf8;

TEST(Utf8, DecodesValidText) {
  const std::pair<const char*, const wchar_t*> cases[] = {
      {"", L""},
      {"abc", L"abc"},
      {"\xC3\xBC", L"ü"},
      {"\xE2\x82\xAC", L"€"},
      {"\xF0\x9F\x98\x80", L"\U0001F600"},
      {"\xF4\x8F\xBF\xBF", L"\U0010FFFF"},
      {"\xEF\xBF\xBF", L"\xFFFF"},
      // A pair written as two three-byte sequences, as the library writes it.
      {"\xED\xA0\xBD\xED\xB8\x80", L"\U0001F600"},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    std::wstring out;
    ASSERT_TRUE(DecodeUtf8(text, out));
    EXPECT_EQ(out, expected);
  }
}

TEST(Utf8, RefusesWhatIsNotUtf8) {
  for (const char* text :
       {"\x80", "\xC3", "\xC3\x28", "\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF",
        "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\xED\xA0\x80", "\xED\xB0\x80",
        "\xED\xA0\xBD"
        "a",
        "\xED\xA0\xBD\xED\xA0\xBD", "a\xE2\x82"}) {
    SCOPED_TRACE(text);
    std::wstring out;
    EXPECT_FALSE(DecodeUtf8(text, out));
  }
}

TEST(Utf8, EncodesAndDecodesBack) {
  const std::wstring text = L"a ü € \U0001F600 \U0010FFFF";
  EXPECT_EQ(EncodeUtf8(text), "a \xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF");
  std::wstring back;
  ASSERT_TRUE(DecodeUtf8(EncodeUtf8(text), back));
  EXPECT_EQ(back, text);
}

}  // namespace
