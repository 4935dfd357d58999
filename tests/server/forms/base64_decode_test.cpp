// Decoding base64 parts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
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

// The text of `data` in lines of `lineLength` characters joined by CRLF.
std::string Encode(const std::string& data, std::size_t lineLength) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < data.size(); i += 3) {
    const std::size_t n = std::min<std::size_t>(3, data.size() - i);
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      group = (group << 8) | (k < n ? static_cast<unsigned char>(data[i + k]) : 0u);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      text += k <= n ? kAlphabet[(group >> (18 - 6 * k)) & 63] : '=';
    }
  }
  std::string lines;
  for (std::size_t i = 0; i < text.size(); i += lineLength) {
    if (i > 0) lines += "\r\n";
    lines += text.substr(i, lineLength);
  }
  return lines;
}

// Line breaks fall at every place in a group, so both the four-at-a-time path and the
// character path run with every number of pending values.
TEST(Base64Decode, DecodesEveryLineLengthAndSize) {
  std::string data;
  for (std::size_t size = 0; size <= 100; ++size) {
    for (std::size_t lineLength = 1; lineLength <= 80; ++lineLength) {
      const std::string text = Encode(data, lineLength);
      std::string out;
      ASSERT_TRUE(AppendBase64Decoded(text, out)) << size << " " << lineLength;
      ASSERT_EQ(out, data) << size << " " << lineLength;
    }
    data += static_cast<char>(size * 37 + 11);
  }
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
