// Reading the target's path and query: which segment is what, percent-decoding as UTF-8,
// upper-cased request keys, and every malformed form refused with a reason.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tools/server/forms/HttpForms.h"

namespace {

using PendrelServer::CHttpRequestParts;
using PendrelServer::CReadRequest;
using PendrelServer::ReadRequest;
using Pairs = std::vector<std::pair<std::wstring, std::wstring>>;

struct TargetCase {
  const char* path;
  const char* query;
  const wchar_t* command;
  const wchar_t* attribute;
  const wchar_t* session;
  Pairs commandParams;
  Pairs requestParams;
};

Pairs PairsOf(const Pendrel::CKeyValueMap& map) { return Pairs(map.begin(), map.end()); }

CHttpRequestParts Target(const char* path, const char* query) {
  CHttpRequestParts parts;
  parts.Method = "GET";
  parts.Path = path;
  parts.Query = query;
  return parts;
}

TEST(ReadTarget, ReadsEachFormOfPathAndQuery) {
  const TargetCase cases[] = {
      {"/PING/S1/A/1", "LANG=en", L"PING", L"", L"S1", {{L"A", L"1"}}, {{L"LANG", L"en"}}},
      {"/PING/", "", L"PING", L"", L"", {}, {}},
      {"/PING", "", L"PING", L"", L"", {}, {}},
      {"PING/S1", "", L"PING", L"", L"S1", {}, {}},
      {"/JOB/K", "", L"JOB", L"", L"K", {}, {}},
      // The attribute commands name their attribute, not a session.
      {"/SDOC/plan/A/1", "LANG=en", L"SDOC", L"plan", L"", {{L"A", L"1"}}, {{L"LANG", L"en"}}},
      {"/REF/r", "", L"REF", L"r", L"", {}, {}},
      {"/SREF/r", "", L"SREF", L"r", L"", {}, {}},
      {"/DOC/d", "", L"DOC", L"d", L"", {}, {}},
      {"/SIMPLEX/s", "", L"SIMPLEX", L"s", L"", {}, {}},
      {"/DUPLEX/d", "", L"DUPLEX", L"d", L"", {}, {}},
      // Compared case-sensitively, as ToHttpURL does.
      {"/simplex/s", "", L"simplex", L"", L"s", {}, {}},
      // Command parameter keys stay as written; request keys are upper-cased.
      {"/PING/S/page/3/Zoom/2",
       "lang=en&Mode=fast",
       L"PING",
       L"",
       L"S",
       {{L"Zoom", L"2"}, {L"page", L"3"}},
       {{L"LANG", L"en"}, {L"MODE", L"fast"}}},
      // An empty value ends the path with "/"; an empty key gives "//".
      {"/PING/S/A/", "", L"PING", L"", L"S", {{L"A", L""}}, {}},
      {"/PING/S//v", "", L"PING", L"", L"S", {{L"", L"v"}}, {}},
      {"/PING//A/1", "", L"PING", L"", L"", {{L"A", L"1"}}, {}},
      // Percent-encoded UTF-8, raw UTF-8 as some clients send it, and reserved characters.
      {"/%D0%9F%D0%98%D0%9D%D0%93/%D1%81%D0%B5%D1%81%D1%81%D0%B8%D1%8F/%D0%BA%D0%BB%D1%8E%D1%87/"
       "%F0%9F%98%80",
       "%D0%AF%D0%97%D0%AB%D0%9A=%D1%80%D1%83%D1%81",
       L"ПИНГ",
       L"",
       L"сессия",
       {{L"ключ", L"\U0001F600"}},
       {{L"ЯЗЫК", L"рус"}}},
      {"/PING/\xD1\x81/k/\xC3\xBC",
       "\xC3\x84=\xC3\xB6",
       L"PING",
       L"",
       L"с",
       {{L"k", L"ü"}},
       {{L"Ä", L"ö"}}},
      {"/PING/a%2Fb/k%3Fx/v%23y%25z",
       "q%26r=s%3Dt",
       L"PING",
       L"",
       L"a/b",
       {{L"k?x", L"v#y%z"}},
       {{L"Q&R", L"s=t"}}},
      {"/PING/S/k/a=b&c;d,e:f@g",
       "k=a=b;c/d?e",
       L"PING",
       L"",
       L"S",
       {{L"k", L"a=b&c;d,e:f@g"}},
       {{L"K", L"a=b;c/d?e"}}},
      // A blank is %20 (or sent as it is); "+" stays a plus sign.
      {"/PING/S/k/a%20b c",
       "k=a+b%20c",
       L"PING",
       L"",
       L"S",
       {{L"k", L"a b c"}},
       {{L"K", L"a+b c"}}},
      // The first of a duplicate key wins; empty parameters are skipped; no "=" is no value.
      {"/PING/S/k/1/k/2",
       "a=1&A=2&&b&=e",
       L"PING",
       L"",
       L"S",
       {{L"k", L"1"}},
       {{L"", L"e"}, {L"A", L"1"}, {L"B", L""}}},
  };
  for (const TargetCase& c : cases) {
    SCOPED_TRACE(std::string(c.path) + "?" + c.query);
    CReadRequest out;
    ASSERT_TRUE(ReadRequest(Target(c.path, c.query), out)) << out.Problem;
    EXPECT_EQ(out.Problem, "");
    EXPECT_EQ(out.Request.Command, c.command);
    EXPECT_EQ(out.Request.CommandAtribute, c.attribute);
    EXPECT_EQ(out.SessionKey, c.session);
    EXPECT_EQ(PairsOf(out.Request.CommandParams), c.commandParams);
    EXPECT_EQ(PairsOf(out.Request.RequestParams), c.requestParams);
    EXPECT_TRUE(out.Request.InputData.empty());
  }
}

TEST(ReadTarget, RequestKeysAreFoundByTheRecordsLookups) {
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Target("/PING/S", "timeout=30&Lang=en"), out)) << out.Problem;
  EXPECT_EQ(out.Request.GetRequestValue(L"timeout"), L"30");
  EXPECT_EQ(out.Request.GetRequestValue(L"LANG"), L"en");
  EXPECT_TRUE(out.Request.HasRequestKey(L"lang"));
}

// Keys are folded by the C library's towupper, as the lookups fold theirs, so a key is found
// whatever case it was sent in and whatever the locale maps.
TEST(ReadTarget, NonAsciiRequestKeysAreFoundByTheRecordsLookups) {
  CReadRequest out;
  ASSERT_TRUE(ReadRequest(Target("/PING/S", "%D1%8F%D0%B7%D1%8B%D0%BA=ru&\xC3\xA4=1"), out))
      << out.Problem;
  EXPECT_EQ(out.Request.GetRequestValue(L"язык"), L"ru");
  EXPECT_EQ(out.Request.GetRequestValue(L"ä"), L"1");
  EXPECT_EQ(out.Request.RequestParams.size(), 2u);
}

struct BadCase {
  const char* path;
  const char* query;
  const char* problem;  // a piece of the reason given
};

TEST(ReadTarget, RefusesMalformedTargetsWithAReason) {
  const BadCase cases[] = {
      {"", "", "names no command"},
      {"/", "", "names no command"},
      {"//S1", "", "names no command"},
      {"/PING/S/A", "", "without a value"},
      {"/PING/S/A/1/B", "", "without a value"},
      {"/PING/S/A/1/", "", "without a value"},
      {"/PING/S/%", "", "two hexadecimal digits"},
      {"/PING/S/%4", "", "two hexadecimal digits"},
      {"/PING/S/%G1/x", "", "two hexadecimal digits"},
      {"/PING/S", "a=%zz", "two hexadecimal digits"},
      {"/PING/S", "a=%", "two hexadecimal digits"},
      {"/PING/%FF", "", "not valid UTF-8"},
      {"/PING/S/%C3/x", "", "not valid UTF-8"},
      {"/PING/S/%C0%AF/x", "", "not valid UTF-8"},        // overlong "/"
      {"/PING/S/%ED%A0%80/x", "", "not valid UTF-8"},     // lone surrogate
      {"/PING/S/%F4%90%80%80/x", "", "not valid UTF-8"},  // above U+10FFFF
      {"/PING/S/\xFF/x", "", "not valid UTF-8"},
      {"/PING/S", "k=%E2%82", "not valid UTF-8"},
      {"/PING/S", "%80=v", "not valid UTF-8"},
      {"/PING/S/k/%00", "", "zero character"},
      {"/PING/S", "k=a%00", "zero character"},
      {"/PING/S/k/a\tb", "", "control character"},
      {"/PING/S\r\n", "", "control character"},
      {"/PING/S", "k=\x7F", "control character"},
      {"/PING/S#frag", "", "\"#\""},
      {"/PING/S", "k=v#f", "\"#\""},
  };
  for (const BadCase& c : cases) {
    SCOPED_TRACE(std::string(c.path) + "?" + c.query);
    CReadRequest out;
    EXPECT_FALSE(ReadRequest(Target(c.path, c.query), out));
    EXPECT_NE(out.Problem.find(c.problem), std::string::npos) << out.Problem;
  }
}

TEST(ReadTarget, ResetsTheRecordBeforeReading) {
  CReadRequest out;
  out.Request.Command = L"OLD";
  out.Request.RequestParams[L"OLD"] = L"1";
  out.SessionKey = L"old";
  out.Problem = "old";
  ASSERT_TRUE(ReadRequest(Target("/PING", ""), out)) << out.Problem;
  EXPECT_EQ(out.Request.Command, L"PING");
  EXPECT_TRUE(out.Request.RequestParams.empty());
  EXPECT_EQ(out.SessionKey, L"");
  EXPECT_EQ(out.Problem, "");
}

}  // namespace
