#include "json/JsonParser.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "json/JsonWriter.h"
#include "json/detail/JsonTokenizer.h"
#include "tests/support/JsonDump.h"

namespace Pendrel {
namespace {

using detail::ClassifyLiteral;
using detail::JsonToken;
using detail::JsonTokenizer;
using detail::JsonTokenValue;
using detail::ReadStringToken;
using detail::RingQueue;
using detail::UnescapeJsonText;
using pendrel_test::DumpJson;
using pendrel_test::ParseAndDump;

struct ParseCase {
  std::string input;
  std::string expected;  // the dump of the result, or "error: " and the message
};

void ExpectParses(const std::vector<ParseCase>& cases) {
  for (const ParseCase& c : cases) {
    EXPECT_EQ(ParseAndDump(c.input), c.expected) << "input: " << c.input;
  }
}

TEST(JsonParser, ParsesStructure) {
  ExpectParses({
      {"{}", "{}"},
      {"[]", "[]"},
      {R"({"a":1,"b":[true,null,"x\/y"]})", R"({"a":#1,"b":[!true,null,"x/y"]})"},
      {R"({"a":{"b":{}},"c":[[],[{}]]})", R"({"a":{"b":{}},"c":[[],[{}]]})"},
      {" \t\r\n[ 1 , 2 ]\n", "[#1,#2]"},
      {R"({"":""})", R"({"":""})"},
  });
}

TEST(JsonParser, EmptyOrBlankInputGivesEmptyResultWithoutMessage) {
  ExpectParses({
      {"", "<empty>"},
      {" \t\r\n", "<empty>"},
      {"// only a comment\n/* and another */", "<empty>"},
  });
}

TEST(JsonParser, CommasAreLenient) {
  ExpectParses({
      {R"({"a":1,})", R"({"a":#1})"},
      {"{,}", "{}"},
      {"[1,,2]", "[#1,#2]"},
      {"[,1]", "[#1]"},
      {"[1 2]", "[#12]"},            // no comma needed; but white space does not end a word
      {"[1 \"a\"]", R"(["a",#1])"},  // the string is queued before the pending word
      {"[1,]", "error: Extra comma in array"},
      {"[,]", "error: Extra comma in array"},
      {"[1, ]", "error: Extra comma in array"},
      {R"({"a":1,])", "error: Extra comma in array"},  // checked before the mismatch
      {"[1,}", "error: Mismatched end and beginning of object"},
  });
}

TEST(JsonParser, NamesAndColons) {
  ExpectParses({
      {R"({"a" 1})", R"({"":"a","":#1})"},
      {R"({"a",1})", R"({"":"a","":#1})"},
      {"{:1}", R"({"":#1})"},
      {R"({"a":"b":"c"})", R"({"b":"c"})"},
      {R"({"a"::1})", R"({"a":#1})"},
      {R"(["a":2])", "[#2]"},  // an array ignores the name
      {R"({"a":[1],"b":2})", R"({"a":[#1],"b":#2})"},
      {R"({"a":[],"b":{}})", R"({"a":[],"b":{}})"},
      {R"({"o":{"a":1}:2})", R"({"o":{"a":#1},"":#2})"},  // a colon alone is ignored
      {"[1:2]", "error: A name has to be a string"},
      {"[null:1]", "error: A name has to be a string"},
      {"{true:1}", "error: A name has to be a string"},
  });
}

TEST(JsonParser, LiteralsIgnoreCase) {
  ExpectParses({
      {"[TRUE, Null, false]", "[!true,null,!false]"},
      {"[tRuE,nULL,FaLsE]", "[!true,null,!false]"},
      {"[tr ue]", "[!true]"},
      {"[t\tr\ru\ne]", "[!true]"},
      {"[n/*x*/ull]", "[null]"},
      {"[nul]", "error: Unknown token: nul"},
      {"[nulls]", "error: Unknown token: nulls"},
      {"[truee]", "error: Unknown token: truee"},
      {"[fals]", "error: Unknown token: fals"},
      {"[undefined]", "error: Unknown token: undefined"},
  });
}

TEST(JsonParser, AcceptsLooseNumbers) {
  ExpectParses({
      {"[1e5, -.5, 1-2]", "[#1e5,#-.5,#1-2]"},
      {"[0,00,-0,007]", "[#0,#00,#-0,#007]"},
      {"[-]", "[#-]"},
      {"[.]", "[#.]"},
      {"[E1]", "[#E1]"},
      {"[e1]", "[#e1]"},
      {"[-e5]", "[#-e5]"},
      {"[1.5E+3]", "[#1.5E+3]"},
      {"[1.e5]", "[#1.e5]"},
      {"[1e5.5]", "[#1e5.5]"},
      {"[1E-5]", "[#1E-5]"},
      {"[1e5-]", "[#1e5-]"},
      {"[1E5+]", "[#1E5+]"},
      {"[.-5]", "[#.-5]"},
  });
}

TEST(JsonParser, RejectsWordsOutsideTheNumberSyntax) {
  ExpectParses({
      {"[1e]", "error: Unknown token: 1e"},
      {"[E]", "error: Unknown token: E"},
      {"[-E]", "error: Unknown token: -E"},
      {"[1e+]", "error: Unknown token: 1e+"},
      {"[--1]", "error: Unknown token: --1"},
      {"[1-2-3]", "error: Unknown token: 1-2-3"},
      {"[1..2]", "error: Unknown token: 1..2"},
      {"[1e1e1]", "error: Unknown token: 1e1e1"},
      {"[+1]", "error: Unknown token: +1"},
      {"[1+2]", "error: Unknown token: 1+2"},
      {"[1E+-5]", "error: Unknown token: 1E+-5"},
      {"[1e-5-]", "error: Unknown token: 1e-5-"},
      {"[0x10]", "error: Unknown token: 0x10"},
      {"[Infinity]", "error: Unknown token: Infinity"},
      {"[\xC3\xA9]", "error: Unknown token: \xC3\xA9"},
      {"[1\x0B]", "error: Unknown token: 1\x0B"},  // vertical tab is not white space
  });
}

TEST(JsonParser, ReadsStrings) {
  ExpectParses({
      {R"(["a\/b"])", R"(["a/b"])"},
      {R"(["a\u0041"])", R"(["a\\u0041"])"},  // six bytes kept: no \u decoding
      {R"(["\\\"/\/"])", R"(["\\\"//"])"},
      {R"(["a\\"])", R"(["a\\"])"},    // two backslashes do not escape the quote
      {R"(["a\"b"])", R"(["a\"b"])"},  // one does
      {R"(["a\\\"b"])", R"(["a\\\"b"])"},
      {R"(["\q\x"])", R"(["\\q\\x"])"},  // unknown escapes keep their backslash
      {R"(["\n\t\b\f\r"])", R"(["\x0A\x09\x08\x0C\x0D"])"},
      {"[\"raw\x01\x1F\t\n\"]", R"(["raw\x01\x1F\x09\x0A"])"},
      {std::string("[\"a\0b\"]", 7), R"(["a\x00b"])"},
      {"[\"\xC3\xA9\xFF\"]", R"(["\xC3\xA9\xFF"])"},
      {R"(["[{:,}]"])", R"(["[{:,}]"])"},
      {R"(["// not /* a comment"])", R"(["// not /* a comment"])"},
  });
}

TEST(JsonParser, UnterminatedStringsEndAtTheEnd) {
  ExpectParses({
      {R"(["abc)", "<empty>"},
      {R"(["abc\)", "<empty>"},
      {R"(["abc\")", "<empty>"},
      {R"("abc)", "error: Outermost node must be an object or array"},
      {R"("abc\)", "error: Outermost node must be an object or array"},
  });
}

TEST(JsonParser, UnclosedContainersGiveTheLastClosedRoot) {
  ExpectParses({
      {R"({"a":1)", "<empty>"},
      {"[[1]", "<empty>"},
      {"[1] [2", "[#1]"},
      {R"({} {"x":2})", R"({"x":#2})"},
      {"[1][2]", "[#2]"},
  });
}

TEST(JsonParser, ReportsStructuralErrors) {
  ExpectParses({
      {R"({"a":[1,2})", "error: Mismatched end and beginning of object"},
      {"[}", "error: Mismatched end and beginning of object"},
      {"[{]", "error: Mismatched end and beginning of array"},
      {"{]", "error: Mismatched end and beginning of array"},
      {"]", "error: Found end of object or array without beginning"},
      {"}", "error: Found end of object or array without beginning"},
      {"[]]", "error: Found end of object or array without beginning"},
      {R"("abc")", "error: Outermost node must be an object or array"},
      {"5", "error: Outermost node must be an object or array"},
      {"null", "error: Outermost node must be an object or array"},
      {"[1] 5", "error: Outermost node must be an object or array"},
      {R"({"a":xyz})", "error: Unknown token: xyz"},
      {"[abc]", "error: Unknown token: abc"},
      {"abc", "error: Unknown token: abc"},
  });
}

TEST(JsonParser, FirstErrorInTokenOrderWins) {
  ExpectParses({
      {"[1,] xyz", "error: Extra comma in array"},
      {"[xyz,]", "error: Unknown token: xyz"},
      {"]{", "error: Found end of object or array without beginning"},
      {"[1]] xyz", "error: Found end of object or array without beginning"},
      {"5 ]", "error: Outermost node must be an object or array"},
      {"[} xyz", "error: Mismatched end and beginning of object"},
  });
}

TEST(JsonParser, WordAtTheEndIsFlushedOnlyWhenItEndsTheInput) {
  ExpectParses({
      {"5", "error: Outermost node must be an object or array"},
      {"5 ", "<empty>"},
      {"5\n", "<empty>"},
      {"[1] 5 ", "[#1]"},
      {"[1] xyz ", "[#1]"},  // not even reported as unknown
      {"[1] 5//c", "error: Outermost node must be an object or array"},
      {"[1] 5//c\n", "[#1]"},  // the line feed is read as white space
      {"[1] 5/*c", "error: Outermost node must be an object or array"},
      {"[1] 5/*c*/", "error: Outermost node must be an object or array"},
      {"[1] 5/*c*/ ", "[#1]"},
      {"[1]/", "error: Unknown token: /"},
  });
}

TEST(JsonParser, QuotedStringIsQueuedBeforeThePendingWord) {
  ExpectParses({
      {R"([abc"def"])", "error: Unknown token: def"},
      {R"([true"x"])", R"(["x",!true])"},
      {R"({"a":1"b":2})", "error: A name has to be a string"},
      {R"([1"x"2])", R"(["x",#1,#2])"},
  });
}

TEST(JsonParser, SkipsComments) {
  ExpectParses({
      {"// line\n{\"a\":/* block */1}", R"({"a":#1})"},
      {"/* a */[/* b */1/* c */,/* d */2/* e */]/* f */", "[#1,#2]"},
      {"[1/*x*/2]", "[#12]"},
      {"[1//x\n2]", "[#12]"},
      {"[1]// to the end", "[#1]"},
      {"[1]/* unterminated", "[#1]"},
      {"/**/[1]", "[#1]"},
      {"/***/[1]", "[#1]"},
      {"/*/ */[1]", "[#1]"},
      {"/*/[1]", "<empty>"},  // "/*/" does not close the comment
      {"/* [1] */", "<empty>"},
      {"[/]", "error: Unknown token: /"},
      {"[1/]", "error: Unknown token: 1/"},
      {"[1] /x", "error: Unknown token: /x"},
      {"[a/b]", "error: Unknown token: a/b"},
  });
}

TEST(JsonParser, LeavesErrorTextUnchangedOnSuccess) {
  std::string error = "earlier";
  JsonValue root;
  ParseJson(error, root, "[1]");
  EXPECT_EQ(error, "earlier");
  EXPECT_EQ(DumpJson(root), "[#1]");
  ParseJson(error, root, "[1");
  EXPECT_EQ(error, "earlier");
  EXPECT_TRUE(root.IsEmpty());
}

TEST(JsonParser, ErrorEmptiesTheResult) {
  std::string error;
  JsonValue root = MakeObject();
  ParseJson(error, root, "[1,]");
  EXPECT_EQ(error, "Extra comma in array");
  EXPECT_TRUE(root.IsEmpty());
}

TEST(JsonParser, TokenizerQueuesStringBeforePendingWord) {
  JsonTokenizer tokenizer(R"(abc"def")");
  RingQueue<JsonToken> tokens;
  RingQueue<JsonTokenValue> values;
  while (!tokenizer.AtEnd()) tokenizer.Step(tokens, values);
  ASSERT_EQ(tokens.Size(), 2u);
  EXPECT_EQ(tokens.Pop(), JsonToken::Unknown);
  EXPECT_EQ(tokens.Pop(), JsonToken::Value);
  ASSERT_EQ(values.Size(), 2u);
  EXPECT_EQ(values.Pop().text, "def");
  EXPECT_EQ(values.Pop().text, "abc");
}

TEST(JsonParser, TokenizerGivesEveryToken) {
  JsonTokenizer tokenizer(R"({}[],:"s" true )");
  RingQueue<JsonToken> tokens;
  RingQueue<JsonTokenValue> values;
  while (!tokenizer.AtEnd()) tokenizer.Step(tokens, values);
  const JsonToken expected[] = {JsonToken::ObjectBegin, JsonToken::ObjectEnd, JsonToken::ArrayBegin,
                                JsonToken::ArrayEnd,    JsonToken::Comma,     JsonToken::Colon,
                                JsonToken::Value};  // "true" before the end is dropped
  ASSERT_EQ(tokens.Size(), std::size(expected));
  for (JsonToken token : expected) EXPECT_EQ(tokens.Pop(), token);
  EXPECT_EQ(values.Size(), 1u);
}

TEST(JsonParser, ClassifyLiteralGivesKindAndText) {
  const auto null = ClassifyLiteral("nUlL");
  ASSERT_TRUE(null);
  EXPECT_EQ(null->kind, JsonKind::Null);
  EXPECT_EQ(null->text, "");
  const auto yes = ClassifyLiteral("TRUE");
  ASSERT_TRUE(yes);
  EXPECT_EQ(yes->kind, JsonKind::Bool);
  EXPECT_EQ(yes->text, "true");
  const auto no = ClassifyLiteral("False");
  ASSERT_TRUE(no);
  EXPECT_EQ(no->text, "false");
  const auto number = ClassifyLiteral("1.5e+3");
  ASSERT_TRUE(number);
  EXPECT_EQ(number->kind, JsonKind::Number);
  EXPECT_EQ(number->text, "1.5e+3");  // as written, not upper-cased
  EXPECT_FALSE(ClassifyLiteral("1e"));
  EXPECT_FALSE(ClassifyLiteral("0x10"));
}

TEST(JsonParser, UnescapeUsesTheWriterTable) {
  EXPECT_EQ(UnescapeJsonText(R"(\\\/\"\n\t\b\f\r)"), "\\/\"\n\t\b\f\r");
  EXPECT_EQ(UnescapeJsonText(R"(\u0041)"), R"(\u0041)");
  EXPECT_EQ(UnescapeJsonText("a\\"), "a\\");
  EXPECT_EQ(UnescapeJsonText(R"(\\n)"), "\\n");  // the pair is taken left to right
  EXPECT_EQ(UnescapeJsonText(""), "");
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    EXPECT_EQ(UnescapeJsonText(EscapeJsonText(text)), text) << byte;
  }
}

TEST(JsonParser, ReadStringTokenStopsAfterTheClosingQuote) {
  const std::string input = R"("ab\"c" tail)";
  std::size_t pos = 1;
  EXPECT_EQ(ReadStringToken(input, pos), "ab\"c");
  EXPECT_EQ(input.substr(pos), " tail");
  std::size_t open = 1;
  EXPECT_EQ(ReadStringToken(R"("abc)", open), "abc");
  EXPECT_EQ(open, 4u);
}

TEST(JsonParser, RoundTripsRandomStringsThroughTheWriter) {
  std::mt19937 random(7);
  for (int round = 0; round < 100; ++round) {
    std::string text(random() % 2000, '\0');
    for (char& c : text) c = static_cast<char>(random() % 256);
    if (round % 10 == 0) text.append(100000, static_cast<char>(random() % 256));
    JsonValue array = MakeArray();
    JsonValue value = MakeValue(JsonKind::String);
    SetString(value, text);
    Append(array, value);
    std::string json;
    WriteJson(kCompactJsonStyle, array, json);
    std::string error;
    JsonValue back;
    ParseJson(error, back, json);
    ASSERT_EQ(error, "");
    ASSERT_EQ(Members(back).size(), 1u);
    ASSERT_TRUE(Members(back).begin()->value.Text() == text) << round;
  }
}

TEST(JsonParser, ParsesWritesAndFreesAMillionNestedArrays) {
  constexpr std::size_t kDepth = 1000000;
  const std::string text = std::string(kDepth, '[') + std::string(kDepth, ']');
  std::string error;
  JsonValue root;
  ParseJson(error, root, text);
  EXPECT_EQ(error, "");
  EXPECT_TRUE(IsArray(root));
  std::string written;
  WriteJson(kCompactJsonStyle, root, written);
  EXPECT_TRUE(written == text);
  root = JsonValue();
}

TEST(JsonParser, ParsesAMillionNestedObjects) {
  constexpr std::size_t kDepth = 1000000;
  std::string text;
  text.reserve(kDepth * 6);
  for (std::size_t i = 0; i < kDepth; ++i) text += "{\"a\":";
  text += "1";
  text.append(kDepth, '}');
  std::string error;
  JsonValue root;
  ParseJson(error, root, text);
  EXPECT_EQ(error, "");
  std::string written;
  WriteJson(kCompactJsonStyle, root, written);
  EXPECT_TRUE(written == text);
}

TEST(JsonParser, FreesAMillionOpenContainersOnErrorAndAtTheEnd) {
  constexpr std::size_t kDepth = 1000000;
  std::string error;
  JsonValue root;
  ParseJson(error, root, std::string(kDepth, '['));
  EXPECT_EQ(error, "");
  EXPECT_TRUE(root.IsEmpty());
  std::string nested(kDepth, '[');
  nested += "[]]]}";
  ParseJson(error, root, nested);
  EXPECT_EQ(error, "Mismatched end and beginning of object");
  EXPECT_TRUE(root.IsEmpty());
}

}  // namespace
}  // namespace Pendrel

namespace Pendrel {
namespace {

// Reading in place gives what reading a copy gives, whatever surrounds the long string:
// escapes, a piece boundary inside an escape, text after it, a second long string, an
// unclosed one, and an error after it.
TEST(JsonParserInPlace, GivesTheSameTreeAsParsingACopy) {
  const std::string mega(std::size_t{1} << 20, 'm');
  std::string escaped = mega;
  for (std::size_t at = 0; at < escaped.size(); at += 16383) escaped[at] = '\\';
  const std::vector<std::string> inputs = {
      "{\"a\":1,\"Data\":\"" + mega + "\",\"after\":[true]}",
      "[\"" + escaped + "n\",\"x\\\"y\"]",
      "{\"one\":\"" + mega + "\",\"two\":\"" + mega + "\"}",
      "{\"open\":\"" + mega,
      "{\"Data\":\"" + mega + "\"]",
      "{\"short\":\"" + std::string(100, 's') + "\"}",
      "{\"a\\u0062\":\"\\t\",\"Data\":\"" + escaped + "\",\"z\":\"" + mega + "\"}",
      "[\"" + std::string(std::size_t{600} << 10, 'h') + "\",\"" + mega + "\"]",
  };
  for (const std::string& input : inputs) {
    std::string copyError;
    JsonValue copy;
    ParseJson(copyError, copy, input);
    std::string ownError;
    JsonValue own;
    std::string owned = input;
    ParseJsonInPlace(ownError, own, owned);
    EXPECT_EQ(ownError, copyError) << input.substr(0, 40);
    EXPECT_TRUE(DumpJson(own) == DumpJson(copy)) << input.substr(0, 40);
  }
}

// The long string takes over the input's memory instead of being copied out of it, also
// after shorter strings that were read from the same buffer.
TEST(JsonParserInPlace, LongStringKeepsTheInputsMemory) {
  // Built at its exact size: a string much shorter than its buffer's capacity gives the
  // rest back by a copy.
  const std::string contents(std::size_t{4} << 20, 'd');
  std::string input;
  input.reserve(contents.size() + 41);
  input.append("{\"Name\":\"a\\\"b\",\"Data\":\"").append(contents).append("\",\"n\":\"x\"}");
  const char* const memory = input.data();
  JsonValue root;
  std::string error;
  ParseJsonInPlace(error, root, input);
  ASSERT_TRUE(error.empty());
  const std::string data = TakeString(*FindMember(root, "Data"));
  EXPECT_EQ(data.data(), memory);
  EXPECT_EQ(data, contents);
  EXPECT_EQ(TakeString(*FindMember(root, "Name")), "a\"b");
  EXPECT_EQ(TakeString(*FindMember(root, "n")), "x");
}

}  // namespace
}  // namespace Pendrel
