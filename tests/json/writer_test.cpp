#include "json/JsonWriter.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "json/JsonParser.h"
#include "json/JsonValue.h"
#include "tests/support/SlowJsonEscapes.h"

namespace Pendrel {
namespace {

using pendrel_test::EscapeSlowly;

std::string Write(const JsonValue& value) {
  std::string out;
  WriteJson(kCompactJsonStyle, value, out);
  return out;
}

JsonValue Str(const std::string& bytes) {
  JsonValue value = MakeValue(JsonKind::String);
  SetString(value, bytes);
  return value;
}

JsonValue Bool(bool flag) {
  JsonValue value = MakeValue(JsonKind::Bool);
  SetBool(value, flag);
  return value;
}

TEST(JsonWriter, WritesCompactObjectWithArray) {
  JsonValue root = MakeObject();
  AddMember(root, "a", MakeNumber(1));
  JsonValue& list = AddMember(root, "b", MakeArray());
  Append(list, Bool(true));
  Append(list, MakeValue(JsonKind::Null));
  Append(list, Str("x/y"));
  EXPECT_EQ(Write(root), R"({"a":1,"b":[true,null,"x\/y"]})");
}

TEST(JsonWriter, WritesEmptyContainers) {
  EXPECT_EQ(Write(MakeObject()), "{}");
  EXPECT_EQ(Write(MakeArray()), "[]");
  JsonValue nested = MakeArray();
  Append(nested, MakeObject());
  Append(nested, MakeArray());
  EXPECT_EQ(Write(nested), "[{},[]]");
}

TEST(JsonWriter, EmptyHandleWritesNothing) {
  EXPECT_EQ(Write(JsonValue()), "");
  JsonValue object = MakeObject();
  AddMember(object, "a", JsonValue());
  EXPECT_EQ(Write(object), R"({"a":})");
}

TEST(JsonWriter, EmptyArrayElementWritesNothingBetweenCommas) {
  JsonValue leading = MakeArray();
  Append(leading, JsonValue());
  Append(leading, MakeNumber(1));
  EXPECT_EQ(Write(leading), "[,1]");
  JsonValue trailing = MakeArray();
  Append(trailing, MakeNumber(1));
  Append(trailing, JsonValue());
  EXPECT_EQ(Write(trailing), "[1,]");
}

TEST(JsonWriter, NamesAreWrittenRawWhileValuesAreEscaped) {
  JsonValue object = MakeObject();
  AddMember(object, "q\"b\\s/", Str("q\"b\\s/"));
  EXPECT_EQ(Write(object), R"({"q"b\s/":"q\"b\\s\/"})");
}

TEST(JsonWriter, ScalarsAtTopLevel) {
  EXPECT_EQ(Write(MakeValue(JsonKind::Null)), "null");
  EXPECT_EQ(Write(MakeNumber(-4)), "-4");
  EXPECT_EQ(Write(Bool(false)), "false");
  EXPECT_EQ(Write(Str("")), "\"\"");
}

TEST(JsonWriter, EscapesEachOfTheEightBytes) {
  const struct {
    char raw;
    const char* written;
  } table[] = {
      {'\\', "\\\\"}, {'/', "\\/"},  {'"', "\\\""}, {'\n', "\\n"},
      {'\t', "\\t"},  {'\b', "\\b"}, {'\f', "\\f"}, {'\r', "\\r"},
  };
  for (const auto& entry : table) {
    EXPECT_EQ(EscapeJsonText(std::string(1, entry.raw)), entry.written) << int(entry.raw);
  }
}

TEST(JsonWriter, CopiesEveryOtherByteRaw) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    if (EscapeSlowly(text) != text) continue;  // one of the eight
    EXPECT_EQ(EscapeJsonText(text), text) << byte;
  }
  EXPECT_EQ(Write(Str("\x01")), "\"\x01\"");
  EXPECT_EQ(Write(Str(std::string("\0\x0B\x1F\x7F\x80\xFF", 6))),
            std::string("\"\0\x0B\x1F\x7F\x80\xFF\"", 8));
}

TEST(JsonWriter, NumberAndBoolTextGoOutUnchanged) {
  std::string error;
  JsonValue root;
  ParseJson(error, root, "[1.5E+3, -.5, TRUE, 1 2]");
  EXPECT_EQ(Write(root), "[1.5E+3,-.5,true,12]");
}

TEST(JsonWriter, BulkEscapingMatchesByteByByteOnRandomData) {
  std::mt19937 random(20240611);
  for (int round = 0; round < 200; ++round) {
    std::string text(random() % 300, '\0');
    const bool dense = round % 2 == 0;
    for (char& c : text) {
      c = static_cast<char>(dense ? random() % 256
                                  : (random() % 64 == 0 ? '"' : 'a' + random() % 26));
    }
    ASSERT_EQ(EscapeJsonText(text), EscapeSlowly(text)) << round;
  }
}

TEST(JsonWriter, EscapesLargeText) {
  std::string text(3 * 1024 * 1024 + 7, 'a');
  for (std::size_t i = 0; i < text.size(); i += 4099) text[i] = '\n';
  const std::string escaped = EscapeJsonText(text);
  EXPECT_EQ(escaped.size(), text.size() + (text.size() + 4098) / 4099);
  EXPECT_TRUE(escaped == EscapeSlowly(text));
}

TEST(JsonWriter, IndentedStyle) {
  const JsonWriteStyle style{true, 2, ' ', "\n", " "};
  JsonValue root = MakeObject();
  AddMember(root, "a", MakeNumber(1));
  JsonValue& list = AddMember(root, "b", MakeArray());
  Append(list, Bool(true));
  Append(list, MakeObject());
  std::string out;
  WriteJson(style, root, out);
  EXPECT_EQ(out,
            "{\n"
            "  \"a\": 1,\n"
            "  \"b\": [\n"
            "    true,\n"
            "    {\n"
            "\n"
            "    }\n"
            "  ]\n"
            "}");
}

TEST(JsonWriter, NullStyleTextsWriteNothing) {
  const JsonWriteStyle style{true, 1, '\t', nullptr, nullptr};
  JsonValue root = MakeArray();
  Append(root, MakeNumber(1));
  std::string out;
  WriteJson(style, root, out);
  EXPECT_EQ(out, "[\t1]");
}

TEST(JsonWriter, WritesOverTheStartOfOut) {
  std::string out = "XXXXXXXXXX";
  WriteJson(kCompactJsonStyle, MakeObject(), out);
  EXPECT_EQ(out, "{}XXXXXXXX");
  std::string shortOut = "X";
  WriteJson(kCompactJsonStyle, MakeArray(), shortOut);
  EXPECT_EQ(shortOut, "[]");
}

TEST(JsonWriter, WritesAMillionNestedArraysWithoutRecursion) {
  constexpr std::size_t kDepth = 1000000;
  JsonValue root = MakeArray();
  JsonValue* innermost = &root;
  for (std::size_t i = 1; i < kDepth; ++i) innermost = &Append(*innermost, MakeArray());
  const std::string text = Write(root);
  EXPECT_TRUE(text == std::string(kDepth, '[') + std::string(kDepth, ']'));
}

}  // namespace
}  // namespace Pendrel
