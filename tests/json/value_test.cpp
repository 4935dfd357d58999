#include "json/JsonValue.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "json/JsonWriter.h"
#include "tests/support/JsonDump.h"

namespace Pendrel {
namespace {

using pendrel_test::DumpJson;

std::string Write(const JsonValue& value) {
  std::string out;
  WriteJson(kCompactJsonStyle, value, out);
  return out;
}

// The first element of the parsed array `text`.
JsonValue ParseElement(const std::string& text) {
  std::string error;
  JsonValue root;
  ParseJson(error, root, text);
  EXPECT_EQ(error, "");
  EXPECT_EQ(Members(root).size(), 1u) << text;
  return Members(root).empty() ? JsonValue() : Members(root).begin()->value;
}

JsonValue Scalar(JsonKind kind, const std::string& text) {
  JsonValue value = MakeValue(kind);
  if (kind == JsonKind::String) SetString(value, text);
  return value;
}

TEST(JsonValue, MakeValueOfNoneGivesEmptyHandle) {
  EXPECT_TRUE(MakeValue(JsonKind::None).IsEmpty());
  EXPECT_EQ(MakeValue(JsonKind::None).Kind(), JsonKind::None);
}

TEST(JsonValue, MakeValueGivesEmptyNodeOfThatKind) {
  for (JsonKind kind : {JsonKind::Object, JsonKind::Array, JsonKind::Null, JsonKind::String,
                        JsonKind::Number, JsonKind::Bool}) {
    const JsonValue value = MakeValue(kind);
    EXPECT_FALSE(value.IsEmpty());
    EXPECT_EQ(value.Kind(), kind);
    EXPECT_EQ(value.Text(), "");
    EXPECT_TRUE(Members(value).empty());
  }
}

TEST(JsonValue, EmptyHandleIsNotNull) {
  EXPECT_EQ(DumpJson(JsonValue()), "<empty>");
  EXPECT_EQ(DumpJson(MakeValue(JsonKind::Null)), "null");
}

TEST(JsonValue, MakeStringConvertsToUtf8AndStopsAtZeroUnit) {
  EXPECT_EQ(MakeString(L"\u00E9\u20AC").Text(), "\xC3\xA9\xE2\x82\xAC");
  const std::wstring withZero(L"ab\0cd", 5);
  EXPECT_EQ(MakeString(withZero).Text(), "ab");
}

TEST(JsonValue, MakeNumberWritesDecimal) {
  EXPECT_EQ(MakeNumber(0).Text(), "0");
  EXPECT_EQ(MakeNumber(-12).Text(), "-12");
  EXPECT_EQ(MakeNumber(INT_MAX).Text(), "2147483647");
  EXPECT_EQ(MakeNumber(INT_MIN).Text(), "-2147483648");
  EXPECT_EQ(MakeNumber(5).Kind(), JsonKind::Number);
}

TEST(JsonValue, SettersTurnAnyScalarIntoTheirKind) {
  for (JsonKind kind : {JsonKind::Null, JsonKind::String, JsonKind::Number, JsonKind::Bool}) {
    JsonValue value = MakeValue(kind);
    SetInt(value, -7);
    EXPECT_EQ(DumpJson(value), "#-7");
    SetBool(value, false);
    EXPECT_EQ(DumpJson(value), "!false");
    SetBool(value, true);
    EXPECT_EQ(DumpJson(value), "!true");
    SetString(value, "x");
    EXPECT_EQ(DumpJson(value), "\"x\"");
  }
}

TEST(JsonValue, SetIntOnObjectDoesNothing) {
  JsonValue object = MakeObject();
  SetInt(object, 5);
  SetString(object, "x");
  SetBool(object, true);
  EXPECT_EQ(DumpJson(object), "{}");
  JsonValue array = MakeArray();
  SetInt(array, 5);
  EXPECT_EQ(DumpJson(array), "[]");
}

TEST(JsonValue, SetStringOnEmptyHandleDoesNotCreateNode) {
  JsonValue value;
  SetString(value, "x");
  SetInt(value, 1);
  SetBool(value, true);
  EXPECT_TRUE(value.IsEmpty());
}

TEST(JsonValue, AppendOnNonArrayReturnsTheGivenElement) {
  JsonValue object = MakeObject();
  JsonValue element = MakeNumber(1);
  EXPECT_EQ(&Append(object, element), &element);
  JsonValue empty;
  EXPECT_EQ(&Append(empty, element), &element);
  EXPECT_EQ(DumpJson(object), "{}");
}

TEST(JsonValue, AddMemberOnNonObjectReturnsTheGivenValue) {
  JsonValue array = MakeArray();
  JsonValue value = MakeNumber(1);
  EXPECT_EQ(&AddMember(array, "a", value), &value);
  EXPECT_EQ(&AddMember(array, L"a", value), &value);
  EXPECT_EQ(DumpJson(array), "[]");
}

TEST(JsonValue, AppendReturnsTheStoredHandle) {
  JsonValue array = MakeArray();
  JsonValue& stored = Append(array, MakeArray());
  Append(stored, MakeNumber(3));
  EXPECT_EQ(DumpJson(array), "[[#3]]");
}

// The records fill objects through the returned references: the first four stay where they
// were stored while the object fills up to four members.
TEST(JsonValue, FirstFourMembersStayWhereTheyWereStored) {
  JsonValue object = MakeObject();
  JsonValue* stored[4] = {};
  stored[0] = &AddMember(object, "a", MakeNumber(0));
  stored[1] = &AddMember(object, "b", MakeNumber(1));
  stored[2] = &AddMember(object, "c", MakeNumber(2));
  stored[3] = &AddMember(object, "d", MakeNumber(3));
  int index = 0;
  for (const JsonMember& member : Members(object)) {
    EXPECT_EQ(&member.value, stored[index]) << member.name;
    EXPECT_EQ(AsInt(*stored[index]), index);
    ++index;
  }
  EXPECT_EQ(index, 4);
}

TEST(JsonValue, AddMemberTwiceKeepsBothAndLookupTakesTheFirst) {
  JsonValue object = MakeObject();
  AddMember(object, "a", MakeNumber(1));
  AddMember(object, "a", MakeNumber(2));
  EXPECT_EQ(DumpJson(object), "{\"a\":#1,\"a\":#2}");
  EXPECT_EQ(AsInt(GetMember(object, "a")), 1);
  EXPECT_EQ(AsInt(GetMember(object, L"a")), 1);
  EXPECT_EQ(Write(object), "{\"a\":1,\"a\":2}");
}

TEST(JsonValue, WideMemberNameIsConvertedAndCutAtZeroUnit) {
  JsonValue object = MakeObject();
  AddMember(object, std::wstring_view(L"k\u00E9y\0tail", 8), MakeNumber(1));
  EXPECT_EQ(Members(object).begin()->name, "k\xC3\xA9y");
}

TEST(JsonValue, NamesCompareAsExactBytes) {
  JsonValue object = MakeObject();
  AddMember(object, "Status", MakeNumber(1));
  EXPECT_FALSE(HasMember(object, "status"));
  EXPECT_FALSE(HasMember(object, "Statu"));
  EXPECT_TRUE(HasMember(object, "Status"));
  EXPECT_TRUE(GetMember(object, "status").IsEmpty());
  EXPECT_TRUE(GetMember(object, std::string_view("Status\0", 7)).IsEmpty());
}

TEST(JsonValue, GetMemberOnNonObjectGivesTheEmptyHandle) {
  JsonValue array = MakeArray();
  Append(array, MakeNumber(1));
  EXPECT_TRUE(GetMember(array, "").IsEmpty());
  EXPECT_TRUE(GetMember(JsonValue(), "a").IsEmpty());
  EXPECT_FALSE(HasMember(array, ""));
  EXPECT_EQ(&GetMember(array, "x"), &GetMember(JsonValue(), "y"));  // one shared handle
}

TEST(JsonValue, WideGetMemberComparesDecodedNames) {
  JsonValue object = MakeObject();
  AddMember(object, "caf\xC3\xA9", MakeNumber(1));
  AddMember(object, "bad\xFF", MakeNumber(2));  // the stray byte decodes to nothing
  EXPECT_EQ(AsInt(GetMember(object, L"caf\u00E9")), 1);
  EXPECT_EQ(AsInt(GetMember(object, L"bad")), 2);
  EXPECT_TRUE(GetMember(object, L"caf").IsEmpty());
}

TEST(JsonValue, WideGetMemberMatchesSurrogateHalvesOnEveryPlatform) {
  JsonValue object = MakeObject();
  AddMember(object, "\xED\xA0\xBD\xED\xB8\x80", MakeNumber(1));  // U+1F600 as two halves
  std::wstring name;
  if (sizeof(wchar_t) == 2) {
    name = {static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)};
  } else {
    name = std::wstring(1, static_cast<wchar_t>(0x1F600));
  }
  EXPECT_EQ(AsInt(GetMember(object, name)), 1);
}

TEST(JsonValue, AsIntOfStringIsZero) { EXPECT_EQ(AsInt(Scalar(JsonKind::String, "42")), 0); }

TEST(JsonValue, AsIntTakesTheLeadingIntegerOfANumber) {
  const struct {
    const char* json;
    std::int32_t expected;
  } cases[] = {
      {"[7.9]", 7},
      {"[12.9]", 12},
      {"[-12.9]", -12},
      {"[1e3]", 1},
      {"[1-2]", 1},
      {"[007]", 7},
      {"[-0]", 0},
      {"[2147483647]", INT_MAX},
      {"[-2147483648]", INT_MIN},
  };
  for (const auto& c : cases) EXPECT_EQ(AsInt(ParseElement(c.json)), c.expected) << c.json;
}

TEST(JsonValue, AsIntOfNumberWithoutLeadingIntegerIsZero) {
  for (const char* json : {"[-]", "[.]", "[.5]", "[-.5]", "[E1]", "[e5]", "[-e5]"}) {
    const JsonValue number = ParseElement(json);
    EXPECT_EQ(number.Kind(), JsonKind::Number) << json;
    EXPECT_EQ(AsInt(number), 0) << json;
  }
}

TEST(JsonValue, AsIntSaturatesOnOverflow) {
  EXPECT_EQ(AsInt(ParseElement("[2147483648]")), INT_MAX);
  EXPECT_EQ(AsInt(ParseElement("[99999999999999999999999]")), INT_MAX);
  EXPECT_EQ(AsInt(ParseElement("[-2147483649]")), INT_MIN);
  EXPECT_EQ(AsInt(ParseElement("[-99999999999999999999999.5]")), INT_MIN);
}

TEST(JsonValue, AsIntOfOtherKindsIsZero) {
  EXPECT_EQ(AsInt(JsonValue()), 0);
  EXPECT_EQ(AsInt(MakeValue(JsonKind::Null)), 0);
  EXPECT_EQ(AsInt(MakeObject()), 0);
  EXPECT_EQ(AsInt(MakeArray()), 0);
  JsonValue flag = MakeValue(JsonKind::Bool);
  SetBool(flag, true);
  EXPECT_EQ(AsInt(flag), 0);
}

TEST(JsonValue, AsWStringReadsEachKind) {
  EXPECT_EQ(AsWString(MakeValue(JsonKind::Null), L"d"), L"null");
  EXPECT_EQ(AsWString(MakeArray(), L"d"), L"d");
  EXPECT_EQ(AsWString(MakeObject(), L"d"), L"d");
  EXPECT_EQ(AsWString(JsonValue(), L"d"), L"d");
  EXPECT_EQ(AsWString(MakeNumber(-3), L"d"), L"-3");
  JsonValue flag = MakeValue(JsonKind::Bool);
  SetBool(flag, false);
  EXPECT_EQ(AsWString(flag, L"d"), L"false");
  EXPECT_EQ(AsWString(Scalar(JsonKind::String, "caf\xC3\xA9"), L"d"), L"caf\u00E9");
  EXPECT_EQ(AsWString(Scalar(JsonKind::String, ""), L"d"), L"");
}

TEST(JsonValue, AsStringKeepsBytes) {
  EXPECT_EQ(AsString(Scalar(JsonKind::String, std::string("a\0\xFF", 3))),
            std::string("a\0\xFF", 3));
  EXPECT_EQ(AsString(MakeValue(JsonKind::Null)), "null");
  EXPECT_EQ(AsString(MakeNumber(12)), "12");
  EXPECT_EQ(AsString(MakeArray()), "");
  EXPECT_EQ(AsString(JsonValue()), "");
}

TEST(JsonValue, AsBoolIsTrueOnlyForBoolTrue) {
  JsonValue flag = MakeValue(JsonKind::Bool);
  SetBool(flag, true);
  EXPECT_TRUE(AsBool(flag));
  SetBool(flag, false);
  EXPECT_FALSE(AsBool(flag));
  EXPECT_FALSE(AsBool(Scalar(JsonKind::String, "true")));
  EXPECT_FALSE(AsBool(MakeNumber(1)));
  EXPECT_FALSE(AsBool(JsonValue()));
  EXPECT_TRUE(AsBool(ParseElement("[TRUE]")));
}

TEST(JsonValue, IsArrayAndIsObjectTellKinds) {
  EXPECT_TRUE(IsArray(MakeArray()));
  EXPECT_FALSE(IsArray(MakeObject()));
  EXPECT_FALSE(IsArray(JsonValue()));
  EXPECT_TRUE(IsObject(MakeObject()));
  EXPECT_FALSE(IsObject(MakeArray()));
}

TEST(JsonValue, ChangingACopyLeavesTheOriginalUnchanged) {
  JsonValue original = MakeObject();
  AddMember(original, "a", MakeNumber(1));
  JsonValue copy = original;
  AddMember(copy, "b", MakeNumber(2));
  EXPECT_EQ(DumpJson(original), "{\"a\":#1}");
  EXPECT_EQ(DumpJson(copy), "{\"a\":#1,\"b\":#2}");

  JsonValue number = MakeNumber(5);
  JsonValue numberCopy = number;
  SetInt(numberCopy, 6);
  EXPECT_EQ(number.Text(), "5");
  EXPECT_EQ(numberCopy.Text(), "6");
}

TEST(JsonValue, ChangingASharedChildChangesOnlyTheDetachedPath) {
  JsonValue child = MakeArray();
  Append(child, MakeNumber(1));
  JsonValue first = MakeObject();
  JsonValue second = MakeObject();
  AddMember(first, "c", child);
  AddMember(second, "c", child);  // the same node sits in both containers
  JsonValue firstCopy = first;

  // Through first's own member slot: first is detached from firstCopy, and the child from
  // second and `child`.
  JsonValue* slot = FindMember(first, "c");
  ASSERT_NE(slot, nullptr);
  Append(*slot, MakeNumber(2));

  EXPECT_EQ(DumpJson(first), "{\"c\":[#1,#2]}");
  EXPECT_EQ(DumpJson(firstCopy), "{\"c\":[#1]}");
  EXPECT_EQ(DumpJson(second), "{\"c\":[#1]}");
  EXPECT_EQ(DumpJson(child), "[#1]");
}

TEST(JsonValue, AddingAValueSharesItUntilChanged) {
  JsonValue value = MakeArray();
  JsonValue object = MakeObject();
  AddMember(object, "v", value);
  Append(value, MakeNumber(1));  // detaches `value` from the stored member
  EXPECT_EQ(DumpJson(object), "{\"v\":[]}");
  EXPECT_EQ(DumpJson(value), "[#1]");
}

TEST(JsonValue, SelfAssignmentKeepsTheNode) {
  JsonValue value = MakeNumber(3);
  const JsonValue& alias = value;
  value = alias;
  EXPECT_EQ(value.Text(), "3");
}

TEST(JsonValue, MovedFromHandleIsEmpty) {
  JsonValue value = MakeNumber(3);
  JsonValue target = std::move(value);
  EXPECT_TRUE(value.IsEmpty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(target.Text(), "3");
}

TEST(JsonValue, TakeStringMovesTheTextOfAnUnsharedNode) {
  JsonValue value = MakeValue(JsonKind::String);
  SetString(value, std::string(100000, 'x'));
  const char* buffer = value.Text().data();
  const std::string taken = TakeString(value);
  EXPECT_EQ(taken.size(), 100000u);
  EXPECT_EQ(taken.data(), buffer);  // no copy
  EXPECT_TRUE(value.IsEmpty());
}

TEST(JsonValue, TakeStringCopiesTheTextOfASharedNode) {
  JsonValue value = MakeValue(JsonKind::String);
  SetString(value, std::string(1000, 'x'));
  const JsonValue other = value;
  const std::string taken = TakeString(value);
  EXPECT_EQ(taken, std::string(1000, 'x'));
  EXPECT_EQ(other.Text(), std::string(1000, 'x'));
  EXPECT_TRUE(value.IsEmpty());
}

TEST(JsonValue, TakeStringReadsLikeAsString) {
  JsonValue null = MakeValue(JsonKind::Null);
  EXPECT_EQ(TakeString(null), "null");
  JsonValue object = MakeObject();
  EXPECT_EQ(TakeString(object), "");
  JsonValue number = MakeNumber(4);
  EXPECT_EQ(TakeString(number), "4");
  JsonValue empty;
  EXPECT_EQ(TakeString(empty), "");
}

TEST(JsonValue, FindMemberDetachesTheObjectFirst) {
  JsonValue object = MakeObject();
  AddMember(object, "a", MakeNumber(1));
  const JsonValue shared = object;
  JsonValue* slot = FindMember(object, "a");
  ASSERT_NE(slot, nullptr);
  SetInt(*slot, 9);
  EXPECT_EQ(DumpJson(object), "{\"a\":#9}");
  EXPECT_EQ(DumpJson(shared), "{\"a\":#1}");
  EXPECT_EQ(FindMember(object, "b"), nullptr);
  JsonValue array = MakeArray();
  EXPECT_EQ(FindMember(array, ""), nullptr);
}

TEST(JsonValue, MutableMembersOfScalarIsEmpty) {
  JsonValue number = MakeNumber(1);
  EXPECT_TRUE(MutableMembers(number).empty());
  JsonValue empty;
  EXPECT_TRUE(MutableMembers(empty).empty());
}

TEST(JsonValue, UnknownKindCodeMakesANodeTheWriterSkips) {
  JsonValue odd = MakeValue(static_cast<JsonKind>(9));
  EXPECT_FALSE(odd.IsEmpty());
  EXPECT_EQ(Write(odd), "");
  JsonValue array = MakeArray();
  Append(array, odd);
  Append(array, MakeNumber(1));
  EXPECT_EQ(Write(array), "[,1]");
}

TEST(JsonValue, ReleasesAMillionNestedArraysWithoutRecursion) {
  JsonValue root = MakeArray();
  JsonValue* innermost = &root;
  for (int i = 0; i < 1000000; ++i) innermost = &Append(*innermost, MakeArray());
  Append(*innermost, MakeNumber(1));
  root = JsonValue();  // would overflow the stack if release recursed
  EXPECT_TRUE(root.IsEmpty());
}

TEST(JsonValue, ReleasesSharedSubtreesOnlyWhenTheLastHandleGoes) {
  JsonValue shared = MakeArray();
  Append(shared, MakeNumber(7));
  {
    JsonValue holder = MakeArray();
    for (int i = 0; i < 3; ++i) Append(holder, shared);
  }
  EXPECT_EQ(DumpJson(shared), "[#7]");
}

}  // namespace
}  // namespace Pendrel
