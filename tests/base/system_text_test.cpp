#include "base/SystemText.h"

#include <gtest/gtest.h>

#include <string>

namespace Pendrel::base {
namespace {

std::string Bytes(std::initializer_list<unsigned char> bytes) {
  return std::string(bytes.begin(), bytes.end());
}

TEST(ToSystemText, KeepsAscii) { EXPECT_EQ(ToSystemText(L"handler.exe"), "handler.exe"); }

TEST(ToSystemText, WritesACharacterAbove0xFFFFAsOneSequence) {
  EXPECT_EQ(ToSystemText(L"\U0001F600"), Bytes({0xF0, 0x9F, 0x98, 0x80}));
}

TEST(ToSystemText, WritesTwoAndThreeByteSequences) {
  EXPECT_EQ(ToSystemText(L"\u00E9\u20AC"), Bytes({0xC3, 0xA9, 0xE2, 0x82, 0xAC}));
}

TEST(ToSystemText, DropsLoneSurrogates) {
  const std::wstring text = {static_cast<wchar_t>(0xD800), L'a', static_cast<wchar_t>(0xDC00)};
  EXPECT_EQ(ToSystemText(text), "a");
}

}  // namespace
}  // namespace Pendrel::base
