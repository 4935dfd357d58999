// Reading header field values with parameters.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tools/server/forms/detail/HeaderField.h"

namespace {

using PendrelServer::detail::CHeaderValue;
using PendrelServer::detail::ReadHeaderValue;
using Parameters = std::vector<std::pair<std::string, std::string>>;

struct FieldCase {
  const char* text;
  const char* value;
  Parameters parameters;
};

TEST(HeaderField, ReadsValueAndParameters) {
  const FieldCase cases[] = {
      {"", "", {}},
      {"text/plain", "text/plain", {}},
      {" Text/Plain ; Charset=UTF-8 ", "text/plain", {{"charset", "UTF-8"}}},
      {"multipart/mixed; boundary=\"------------B0A1\"",
       "multipart/mixed",
       {{"boundary", "------------B0A1"}}},
      {"inline; filename=\"a;b.txt\"", "inline", {{"filename", "a;b.txt"}}},
      // Quotes inside a name are the library's, written without escapes.
      {"text/plain; name=\"say \"hi\"\"; x=1", "text/plain", {{"name", "say \"hi\""}, {"x", "1"}}},
      {"inline; filename=\"C:\\dir\\a.txt\"", "inline", {{"filename", "C:\\dir\\a.txt"}}},
      {"form-data; name=\"f\"; filename=\"\"", "form-data", {{"name", "f"}, {"filename", ""}}},
      // Parameters without "=" and empty ones are skipped.
      {"inline; ; odd; a = b ;", "inline", {{"a", "b"}}},
      // An extended value is decoded and put first.
      {"attachment; filename=\"plain.txt\"; FILENAME*=utf-8'en'%C3%A9t%C3%A9.txt",
       "attachment",
       {{"filename", "\xC3\xA9t\xC3\xA9.txt"}, {"filename", "plain.txt"}}},
      {"inline; filename*=ISO-8859-1''caf%E9.txt; name*=us-ascii''a%20b",
       "inline",
       {{"filename", "caf\xC3\xA9.txt"}, {"name", "a b"}}},
  };
  for (const FieldCase& c : cases) {
    SCOPED_TRACE(c.text);
    CHeaderValue out;
    ASSERT_TRUE(ReadHeaderValue(c.text, out));
    EXPECT_EQ(out.Value, c.value);
    EXPECT_EQ(out.Parameters, c.parameters);
  }
}

TEST(HeaderField, FindGivesTheFirstOfDuplicates) {
  CHeaderValue out;
  ASSERT_TRUE(ReadHeaderValue("a; n=1; n=2", out));
  ASSERT_NE(out.Find("n"), nullptr);
  EXPECT_EQ(*out.Find("n"), "1");
  EXPECT_EQ(out.Find("m"), nullptr);
}

TEST(HeaderField, RefusesUnterminatedQuotesAndBadExtendedValues) {
  for (const char* text : {"a; n=\"x", "a; n=\"x\"y", "a; n*=iso-8859-5''x", "a; n*=us-ascii''%E9",
                           "a; n*=utf-8''%G0", "a; n*=noquotes"}) {
    SCOPED_TRACE(text);
    CHeaderValue out;
    EXPECT_FALSE(ReadHeaderValue(text, out));
  }
}

}  // namespace
