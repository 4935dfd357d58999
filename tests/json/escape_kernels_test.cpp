// The bulk escape routines, portable and vector, against plain byte-by-byte versions of the
// rules, on many lengths, alignments and densities of escapes.
#include "json/detail/JsonEscapes.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "json/JsonParser.h"
#include "json/JsonWriter.h"
#include "json/detail/JsonTokenizer.h"
#include "tests/support/SlowJsonEscapes.h"

namespace Pendrel::detail {
namespace {

using pendrel_test::EscapeSlowly;

char RawOfLetter(char letter) {
  switch (letter) {
    case '\\':
      return '\\';
    case '/':
      return '/';
    case '"':
      return '"';
    case 'n':
      return '\n';
    case 't':
      return '\t';
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    case 'r':
      return '\r';
    default:
      return '\0';
  }
}

std::string UnescapeSlowly(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] != '\\') {
      out += text[i++];
      continue;
    }
    const char raw = RawOfLetter(i + 1 < text.size() ? text[i + 1] : '\0');
    if (raw != '\0') {
      out += raw;
      i += 2;
    } else {
      out += '\\';
      i += 1;
    }
  }
  return out;
}

// Where the string ends, and whether a backslash stands before that.
std::size_t StringEndSlowly(const std::string& text, bool& hasBackslash) {
  std::size_t i = 0;
  while (i < text.size()) {
    if (text[i] == '"') return i;
    if (text[i] == '\\') {
      hasBackslash = true;
      i += 2;
    } else {
      i += 1;
    }
  }
  return text.size();
}

std::vector<const JsonTextKernels*> AllKernels() {
  std::vector<const JsonTextKernels*> kernels{&PortableJsonTextKernels()};
  if (const JsonTextKernels* vector = VectorJsonTextKernels()) kernels.push_back(vector);
  if (const JsonTextKernels* wide = WideVectorJsonTextKernels()) kernels.push_back(wide);
  return kernels;
}

// Texts that stress the routines: random bytes, text with sparse escapes, long runs of one
// byte (backslashes and quotes included), and every mix of them.
class TextSource {
 public:
  explicit TextSource(std::uint32_t seed) : m_random(seed) {}

  std::string Next(std::size_t maxLength) {
    const std::size_t length = m_random() % (maxLength + 1);
    const char alphabet[] = "ab\\\\\\\"\"/ntbfr\n\t\b\f\r\x01\x7F\x80\xFF uq";
    std::string text;
    const int style = static_cast<int>(m_random() % 4);
    while (text.size() < length) {
      char c = 0;
      switch (style) {
        case 0:
          c = static_cast<char>(m_random() % 256);
          break;
        case 1:
          c = m_random() % 40 == 0 ? alphabet[m_random() % (sizeof alphabet - 1)] : 'x';
          break;
        default:
          c = alphabet[m_random() % (sizeof alphabet - 1)];
          break;
      }
      const std::size_t run = m_random() % 16 == 0 ? 1 + m_random() % 70 : 1;
      text.append(std::min(run, length - text.size()), c);
    }
    return text;
  }

 private:
  std::mt19937 m_random;
};

constexpr char kCanary = '\x5A';

// A buffer for `size` output bytes plus the routines' slack, then canaries that must stay.
std::string OutputBuffer(std::size_t size) { return std::string(size + kCopySlack + 64, kCanary); }

void ExpectCanariesKept(const std::string& buffer, std::size_t written) {
  for (std::size_t i = written + kCopySlack; i < buffer.size(); ++i) {
    ASSERT_EQ(buffer[i], kCanary) << "written beyond the slack at " << i;
  }
}

TEST(JsonEscapeKernels, EscapeLikeTheTable) {
  TextSource source(11);
  for (const JsonTextKernels* kernels : AllKernels()) {
    for (int round = 0; round < 3000; ++round) {
      const std::string text = source.Next(round % 100 == 0 ? 5000 : 300);
      for (std::size_t offset : {std::size_t{0}, std::size_t{1}, std::size_t{7}}) {
        if (offset > text.size()) continue;
        const std::string part = text.substr(offset);
        const std::string partExpected = EscapeSlowly(part);
        std::string buffer = OutputBuffer(partExpected.size());
        const char* end =
            kernels->copyEscaped(part.data(), part.data() + part.size(), buffer.data());
        const auto written = static_cast<std::size_t>(end - buffer.data());
        ASSERT_EQ(buffer.substr(0, written), partExpected) << "round " << round;
        ExpectCanariesKept(buffer, written);
      }
    }
  }
}

TEST(JsonEscapeKernels, UnescapeLikeTheTable) {
  TextSource source(12);
  for (const JsonTextKernels* kernels : AllKernels()) {
    for (int round = 0; round < 3000; ++round) {
      // Both written texts and raw ones, which hold unknown escapes and lone backslashes.
      std::string text = source.Next(round % 100 == 0 ? 5000 : 300);
      if (round % 2 == 0) text = EscapeSlowly(text);
      const std::string expected = UnescapeSlowly(text);
      std::string buffer = OutputBuffer(text.size());
      const char* end =
          kernels->copyUnescaped(text.data(), text.data() + text.size(), buffer.data());
      const auto written = static_cast<std::size_t>(end - buffer.data());
      ASSERT_EQ(buffer.substr(0, written), expected) << "round " << round;
      ExpectCanariesKept(buffer, written);
    }
  }
}

TEST(JsonEscapeKernels, FindTheStringEndLikeTheRules) {
  TextSource source(13);
  for (const JsonTextKernels* kernels : AllKernels()) {
    for (int round = 0; round < 3000; ++round) {
      const std::string text = source.Next(round % 100 == 0 ? 5000 : 300);
      bool expectedBackslash = false;
      const std::size_t expected = StringEndSlowly(text, expectedBackslash);
      bool hasBackslash = false;
      const char* end =
          kernels->findStringEnd(text.data(), text.data() + text.size(), hasBackslash);
      ASSERT_EQ(static_cast<std::size_t>(end - text.data()), expected) << "round " << round;
      ASSERT_EQ(hasBackslash, expectedBackslash) << "round " << round;

      std::string buffer = OutputBuffer(text.size());
      const char* stop = nullptr;
      const char* written =
          kernels->copyStringUnescaped(text.data(), text.data() + text.size(), buffer.data(), stop);
      ASSERT_EQ(static_cast<std::size_t>(stop - text.data()), expected) << "round " << round;
      const auto count = static_cast<std::size_t>(written - buffer.data());
      ASSERT_EQ(buffer.substr(0, count), UnescapeSlowly(text.substr(0, expected)));
      ExpectCanariesKept(buffer, count);
    }
  }
}

TEST(JsonEscapeKernels, BackslashRunsAcrossBlockEdges) {
  // Runs of every length ending at every place around the 16- and 64-byte blocks, followed
  // by a letter, a quote or an ordinary byte.
  for (const JsonTextKernels* kernels : AllKernels()) {
    for (std::size_t at = 50; at < 140; ++at) {
      for (std::size_t run = 1; run <= 5; ++run) {
        for (const char after : {'n', '"', 'x', '\\'}) {
          std::string text(200, 'a');
          for (std::size_t i = 0; i < run; ++i) text[at - i] = '\\';
          text[at + 1] = after;
          text += "\"tail";
          bool expectedBackslash = false;
          const std::size_t expected = StringEndSlowly(text, expectedBackslash);
          bool hasBackslash = false;
          const char* end =
              kernels->findStringEnd(text.data(), text.data() + text.size(), hasBackslash);
          ASSERT_EQ(static_cast<std::size_t>(end - text.data()), expected);
          std::string buffer = OutputBuffer(text.size());
          const char* written =
              kernels->copyUnescaped(text.data(), text.data() + text.size(), buffer.data());
          ASSERT_EQ(buffer.substr(0, static_cast<std::size_t>(written - buffer.data())),
                    UnescapeSlowly(text));
        }
      }
    }
  }
}

TEST(JsonEscapeKernels, ActiveKernelsAreTheWidestAvailable) {
  const JsonTextKernels* active = &JsonText();
  if (WideVectorJsonTextKernels() != nullptr) {
    EXPECT_EQ(active, WideVectorJsonTextKernels());
  } else if (VectorJsonTextKernels() != nullptr) {
    EXPECT_EQ(active, VectorJsonTextKernels());
  } else {
    EXPECT_EQ(active, &PortableJsonTextKernels());
  }
}

// Long strings are read in pieces; escapes across the piece edges (every 16384 bytes) and
// across the first 4096 bytes, after which a string is read in one pass, must not change
// the text.
TEST(JsonEscapeKernels, LongStringsReadAcrossPieceEdges) {
  for (const std::size_t edge :
       {std::size_t{4096}, std::size_t{16384}, std::size_t{65536}, std::size_t{81920}}) {
    for (std::size_t run = 1; run <= 4; ++run) {
      for (std::ptrdiff_t shift = -2; shift <= 2; ++shift) {
        std::string text(edge + 5000, 'a');
        const std::size_t at = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(edge) + shift);
        for (std::size_t i = 0; i < run; ++i) text[at - i] = '\\';
        text[at + 1] = 'n';
        const std::string input = text + "\" tail";
        std::size_t pos = 0;
        const std::string read = ReadStringToken(input, pos);
        bool ignored = false;
        const std::size_t end = StringEndSlowly(input, ignored);
        ASSERT_EQ(pos, end + 1) << edge << " " << run << " " << shift;
        ASSERT_TRUE(read == UnescapeSlowly(input.substr(0, end))) << edge << " " << run;
        ASSERT_TRUE(UnescapeJsonText(text) == UnescapeSlowly(text)) << edge << " " << run;
      }
    }
  }
}

TEST(JsonEscapeKernels, ReadsMegabytesOfBackslashesInOnePass) {
  // Each piece edge looks back only within its piece, so a long run costs no more than its
  // length.
  const std::string input = std::string(8 * 1024 * 1024, '\\') + "\" tail";
  std::size_t pos = 0;
  const std::string read = ReadStringToken(input, pos);
  EXPECT_EQ(pos, input.size() - 5);
  EXPECT_EQ(read.size(), 4u * 1024 * 1024);
  EXPECT_EQ(read.find_first_not_of('\\'), std::string::npos);
  EXPECT_TRUE(UnescapeJsonText(input.substr(0, 8 * 1024 * 1024)) == read);
}

TEST(JsonEscapeKernels, LongUnterminatedStringRunsToTheEnd) {
  std::string input(200000, 'q');
  input[100000] = '\\';
  input[100001] = '"';
  input.back() = '\\';
  std::size_t pos = 0;
  const std::string read = ReadStringToken(input, pos);
  EXPECT_EQ(pos, input.size());
  EXPECT_TRUE(read == UnescapeSlowly(input));
  EXPECT_EQ(read.size(), input.size() - 1);
}

TEST(JsonEscapeKernels, LongStringBeforeOtherContentKeepsItsSize) {
  const std::string big(300000, 'z');
  const std::string input = "[\"" + big + "\",\"" + big + "\"]";
  std::string error;
  JsonValue root;
  ParseJson(error, root, input);
  ASSERT_EQ(error, "");
  ASSERT_EQ(Members(root).size(), 2u);
  for (const JsonMember& member : Members(root)) EXPECT_TRUE(member.value.Text() == big);
}

}  // namespace
}  // namespace Pendrel::detail
