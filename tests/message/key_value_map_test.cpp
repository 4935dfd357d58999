// The key order of the records' maps: UTF-16 code units on every system, so a character above
// U+FFFF (a high surrogate, 0xD800..0xDBFF, in UTF-16) comes before U+E000..U+FFFF in every
// form that walks a map.
#include "message/KeyValueMap.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json/TextConversion.h"
#include "message/CRequest.h"
#include "message/CResponse.h"

namespace Pendrel {
namespace {

// In UTF-16 code-unit order; a plain comparison of 32-bit characters would put the emoji last.
const std::wstring kAscii = L"A";
const std::wstring kEmoji = L"\U0001F600";
const std::wstring kPrivateUse = L"\uE000";
const std::wstring kFullwidthA = L"\uFF21";

CKeyValueMap ParamsInReverse() {
  CKeyValueMap params;
  params[kFullwidthA] = L"4";
  params[kPrivateUse] = L"3";
  params[kEmoji] = L"2";
  params[kAscii] = L"1";
  return params;
}

std::vector<std::wstring> KeysOf(const CKeyValueMap& params) {
  std::vector<std::wstring> keys;
  for (const auto& entry : params) keys.push_back(entry.first);
  return keys;
}

TEST(KeyValueMap, WalksKeysInUtf16Order) {
  const std::vector<std::wstring> expected = {kAscii, kEmoji, kPrivateUse, kFullwidthA};
  EXPECT_EQ(KeysOf(ParamsInReverse()), expected);
}

TEST(KeyValueMap, Utf16LessComparesSurrogateHalves) {
  const CUtf16Less less;
  EXPECT_TRUE(less(kEmoji, kFullwidthA));
  EXPECT_FALSE(less(kFullwidthA, kEmoji));
  EXPECT_TRUE(less(L"\U0001F600", L"\U0001F601"));
  EXPECT_TRUE(less(L"ab", L"ab\U0001F600"));
  EXPECT_FALSE(less(L"same", L"same"));
  EXPECT_FALSE(less(L"", L""));
  EXPECT_TRUE(less(L"", L"\U0001F600"));
}

TEST(KeyValueMap, Utf16LessOnlyFindsEqualStringsEquivalent) {
  if (sizeof(wchar_t) == 2) GTEST_SKIP() << "a 16-bit wchar_t holds only UTF-16 units";
  // The same UTF-16 form, held as one character or as two halves; and a value that has none.
  const std::wstring character(1, static_cast<wchar_t>(0x1F600));
  const std::wstring halves{static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)};
  const std::wstring beyond(1, static_cast<wchar_t>(0x110000));
  const CUtf16Less less;
  EXPECT_NE(less(character, halves), less(halves, character));
  EXPECT_NE(less(L"", beyond), less(beyond, L""));
  CKeyValueMap params{{character, L"1"}, {halves, L"2"}, {beyond, L"3"}, {L"", L"4"}};
  EXPECT_EQ(params.size(), 4u);
}

TEST(KeyValueMap, RequestJsonWritesKeysInUtf16Order) {
  CRequest request;
  request.CommandParams = ParamsInReverse();
  request.RequestParams = ParamsInReverse();
  const std::wstring params =
      L"{\"A\":\"1\",\"\U0001F600\":\"2\",\"\uE000\":\"3\",\"\uFF21\":\"4\"}";
  EXPECT_EQ(request.ToJsonString(),
            Utf16ToUtf8(L"{\"Command\":\"\",\"CommandAtribute\":\"\",\"CommandParams\":" + params +
                        L",\"RequestParams\":" + params + L",\"InputData\":[]}"));
}

TEST(KeyValueMap, ResponseJsonFormsWriteKeysInUtf16Order) {
  CResponse response(static_cast<EStatus>(0));
  response.Parameters = ParamsInReverse();
  const std::wstring members =
      L"\"A\":\"1\",\"\U0001F600\":\"2\",\"\uE000\":\"3\",\"\uFF21\":\"4\"";
  EXPECT_EQ(response.ToJsonString(),
            Utf16ToUtf8(L"{\"status\":0,\"Parameters\":{" + members + L"}}"));
  EXPECT_EQ(response.ToCommonJsonString(), Utf16ToUtf8(L"{\"status\":0," + members + L"}"));
  std::string header;
  std::string body;
  response.ToHttpRequestData(header, body);
  EXPECT_EQ(body, Utf16ToUtf8(L"{\"status\":0," + members + L"}"));
}

TEST(KeyValueMap, UrlAndParameterStringsWalkKeysInUtf16Order) {
  CRequest request;
  request.Command = L"PING";
  request.CommandParams = ParamsInReverse();
  request.RequestParams = ParamsInReverse();
  EXPECT_EQ(request.ToHttpURL(L"", L"S"),
            L"PING/S/A/1/\U0001F600/2/\uE000/3/\uFF21/4?A=1&\U0001F600=2&\uE000=3&\uFF21=4");
  EXPECT_EQ(request.GetCommandParamsString(), L"&a=1&\U0001F600=2&\uE000=3&\uFF21=4");
  EXPECT_EQ(request.GetRequestParamsString(), L"?a=1&\U0001F600=2&\uE000=3&\uFF21=4");
}

TEST(KeyValueMap, KeysReadFromJsonKeepUtf16Order) {
  // Written in the other order: reading sorts them.
  const std::string json =
      Utf16ToUtf8(L"{\"status\":0,\"Parameters\":{\"\uFF21\":\"4\",\"\U0001F600\":\"2\"}}");
  CResponse response;
  ASSERT_TRUE(response.FromJsonString(json));
  const std::vector<std::wstring> expected = {kEmoji, kFullwidthA};
  EXPECT_EQ(KeysOf(response.Parameters), expected);
}

}  // namespace
}  // namespace Pendrel
