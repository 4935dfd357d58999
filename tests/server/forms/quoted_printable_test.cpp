// Decoding quoted-printable parts.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tools/server/forms/detail/QuotedPrintable.h"

namespace {

using PendrelServer::detail::AppendQuotedPrintableDecoded;

TEST(QuotedPrintable, DecodesEscapesSoftBreaksAndPadding) {
  const std::pair<const char*, const char*> cases[] = {
      {"", ""},
      {"plain", "plain"},
      {"na=C3=AFve", "na\xC3\xAFve"},
      {"a=3d=3Db", "a==b"},
      {"long=\r\nline", "longline"},
      {"long= \t\nline", "longline"},
      {"end=", "end"},
      {"pad  \r\nnext\t\n", "pad\r\nnext\n"},
      {"in between", "in between"},
      {"tail  ", "tail"},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    std::string out = ">";
    ASSERT_TRUE(AppendQuotedPrintableDecoded(text, out));
    EXPECT_EQ(out, std::string(">") + expected);
  }
}

TEST(QuotedPrintable, RefusesAnEqualsSignThatIsNoEscape) {
  for (const char* text : {"a=zz", "a=4", "a=4g", "=x\r\n", "a=\rb"}) {
    SCOPED_TRACE(text);
    std::string out;
    EXPECT_FALSE(AppendQuotedPrintableDecoded(text, out));
  }
}

}  // namespace
