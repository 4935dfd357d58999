// Decoding base64 parts.
#include <gtest/gtest.h>

#include <string>

#include "tools/server/forms/detail/Base64Decode.h"

namespace {

using namespace std::string_literals;
using PendrelServer::detail::AppendBase64Decoded;

TEST(Base64Decode, DecodesPaddedUnpaddedAndBrokenLines) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"aGk=", "hi"},
      {"aGk", "hi"},
      {"aGl0", "hit"},
      {"aA==", "h"},
      {"aA", "h"},
      {"JVBE", "%PD"},
      {"AAH/", "\0\x01\xFF"s},
      {"+/+/", "\xFB\xFF\xBF"},
      {"aG\r\nk=\r\n", "hi"},
      {" aGk = ", "hi"},
      {"aGk=\r\n", "hi"},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    std::string out = "x";
    ASSERT_TRUE(AppendBase64Decoded(text, out));
    EXPECT_EQ(out, "x" + expected);
  }
}

TEST(Base64Decode, DecodesWhatTheLibrarysSixtyFiveCharacterLinesHold) {
  std::string data;
  for (int i = 0; i < 256; ++i) data += static_cast<char>(i);
  // 256 bytes: 344 characters, five lines of 65 and one of 19.
  const std::string text =
      "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vM\r\n"
      "DEyMzQ1Njc4OTo7PD0+P0BBQkNERUZHSElKS0xNTk9QUVJTVFVWV1hZWltcXV5fY\r\n"
      "GFiY2RlZmdoaWprbG1ub3BxcnN0dXZ3eHl6e3x9fn+AgYKDhIWGh4iJiouMjY6Pk\r\n"
      "JGSk5SVlpeYmZqbnJ2en6ChoqOkpaanqKmqq6ytrq+wsbKztLW2t7i5uru8vb6/w\r\n"
      "MHCw8TFxsfIycrLzM3Oz9DR0tPU1dbX2Nna29zd3t/g4eLj5OXm5+jp6uvs7e7v8\r\n"
      "PHy8/T19vf4+fr7/P3+/w==";
  std::string out;
  ASSERT_TRUE(AppendBase64Decoded(text, out));
  EXPECT_EQ(out, data);
}

TEST(Base64Decode, RefusesWhatIsNotBase64) {
  for (const char* text :
       {"a", "aGk*", "a===", "aGk=a", "aGk==", "=", "aG=k", "aGk=\x01", "aGk.", "aGkA\xC3\xA4"}) {
    SCOPED_TRACE(text);
    std::string out;
    EXPECT_FALSE(AppendBase64Decoded(text, out));
  }
}

}  // namespace
