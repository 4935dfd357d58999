#include "message/detail/Base64.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace Pendrel::detail {
namespace {

std::string Encode(const std::string& data) {
  std::string out;
  AppendBase64Lines(out, data);
  return out;
}

// A decoder written apart from the encoder: it checks the line layout (65 characters,
// CRLF between lines, none at the ends) and returns the bytes, or fails the test.
std::string DecodeLines(const std::string& text) {
  std::string joined;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = text.find("\r\n", at);
    const std::string line = text.substr(at, end == std::string::npos ? end : end - at);
    if (end != std::string::npos) {
      EXPECT_EQ(line.size(), 65u) << "inner lines are 65 characters";
      EXPECT_LT(end + 2, text.size()) << "no line break after the last line";
      at = end + 2;
    } else {
      EXPECT_GE(line.size(), 1u);
      EXPECT_LE(line.size(), 65u);
      at = text.size();
    }
    joined += line;
  }
  EXPECT_EQ(joined.size() % 4, 0u);
  std::string bytes;
  std::uint32_t bits = 0;
  int count = 0;
  for (char c : joined) {
    int value;
    if (c >= 'A' && c <= 'Z') {
      value = c - 'A';
    } else if (c >= 'a' && c <= 'z') {
      value = c - 'a' + 26;
    } else if (c >= '0' && c <= '9') {
      value = c - '0' + 52;
    } else if (c == '+') {
      value = 62;
    } else if (c == '/') {
      value = 63;
    } else if (c == '=') {
      break;
    } else {
      ADD_FAILURE() << "unexpected character " << static_cast<int>(c);
      return bytes;
    }
    bits = (bits << 6) | static_cast<std::uint32_t>(value);
    if (++count == 4) {
      bytes += static_cast<char>(bits >> 16);
      bytes += static_cast<char>(bits >> 8);
      bytes += static_cast<char>(bits);
      bits = 0;
      count = 0;
    }
  }
  if (count == 2) bytes += static_cast<char>(bits >> 4);
  if (count == 3) {
    bytes += static_cast<char>(bits >> 10);
    bytes += static_cast<char>(bits >> 2);
  }
  return bytes;
}

std::string RandomBytes(std::mt19937& random, std::size_t size) {
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(random() & 0xFF);
  return data;
}

TEST(Base64, KnownVectors) {
  EXPECT_EQ(Encode(""), "");
  EXPECT_EQ(Encode("f"), "Zg==");
  EXPECT_EQ(Encode("fo"), "Zm8=");
  EXPECT_EQ(Encode("foo"), "Zm9v");
  EXPECT_EQ(Encode("foob"), "Zm9vYg==");
  EXPECT_EQ(Encode("fooba"), "Zm9vYmE=");
  EXPECT_EQ(Encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(Encode("hi"), "aGk=");
  EXPECT_EQ(Encode("%PD"), "JVBE");
  EXPECT_EQ(Encode(std::string("\x89PNG\r\n\x1a\n", 8)), "iVBORw0KGgo=");
  EXPECT_EQ(Encode(std::string("\xfb\xff\xbf", 3)), "+/+/");
}

TEST(Base64, FortyEightBytesFitOneLine) {
  const std::string text = Encode(std::string(48, 'x'));
  EXPECT_EQ(text.size(), 64u);
  EXPECT_EQ(text.find('\r'), std::string::npos);
}

TEST(Base64, FortyNineBytesBreakAfterSixtyFiveCharacters) {
  const std::string text = Encode(std::string(49, 'x'));
  ASSERT_EQ(text.size(), 65u + 2u + 3u);
  EXPECT_EQ(text.substr(65, 2), "\r\n");
  EXPECT_EQ(text.substr(0, 65), Encode(std::string(48, 'x')) + "e");
  EXPECT_EQ(text.substr(67), "A==");
}

TEST(Base64, AppendsAfterExistingText) {
  std::string out = "head:";
  AppendBase64Lines(out, "foobar");
  EXPECT_EQ(out, "head:Zm9vYmFy");
}

TEST(Base64, LengthMatchesWhatIsWritten) {
  for (std::size_t size : {0u, 1u, 2u, 3u, 48u, 49u, 195u, 196u, 390u, 1000u}) {
    EXPECT_EQ(Encode(std::string(size, 'a')).size(), Base64LinesLength(size)) << size;
  }
}

TEST(Base64, EveryLengthUpTo300DecodesBack) {
  std::mt19937 random(4648);
  for (std::size_t size = 0; size <= 300; ++size) {
    const std::string data = RandomBytes(random, size);
    const std::string text = Encode(data);
    EXPECT_EQ(text.size(), Base64LinesLength(size));
    EXPECT_TRUE(DecodeLines(text) == data) << "length " << size;
  }
}

TEST(Base64, MegabytesDecodeBack) {
  std::mt19937 random(65);
  for (std::size_t size : {std::size_t{3} << 20, (std::size_t{5} << 20) + 1}) {
    const std::string data = RandomBytes(random, size);
    const std::string text = Encode(data);
    EXPECT_EQ(text.size(), Base64LinesLength(size));
    EXPECT_TRUE(DecodeLines(text) == data) << "length " << size;
  }
}

std::string EncodeWith(Base64GroupEncoder encoder, const std::string& data) {
  std::string out;
  AppendBase64Lines(out, data, encoder);
  return out;
}

TEST(Base64, VectorKernelWritesWhatThePortableLoopWrites) {
  const Base64GroupEncoder vector = VectorBase64Encoder();
  if (vector == nullptr) GTEST_SKIP() << "no vector kernel on this processor";
  const Base64GroupEncoder portable = PortableBase64Encoder();
  std::mt19937 random(1560);
  // Every length around the encoder's steps and the chunks of lines, then random ones.
  std::vector<std::size_t> sizes;
  for (std::size_t size = 0; size <= 3200; ++size) sizes.push_back(size);
  for (int i = 0; i < 200; ++i) sizes.push_back(random() % (std::size_t{1} << 18));
  sizes.push_back((std::size_t{4} << 20) + 7);
  for (const std::size_t size : sizes) {
    const std::string data = RandomBytes(random, size);
    ASSERT_EQ(EncodeWith(vector, data), EncodeWith(portable, data)) << "length " << size;
  }
}

TEST(Base64, VectorKernelEncodesEveryGroupValue) {
  // All 2^24 groups, in one stretch that the kernel encodes twelve bytes at a time.
  const Base64GroupEncoder vector = VectorBase64Encoder();
  if (vector == nullptr) GTEST_SKIP() << "no vector kernel on this processor";
  std::string data;
  data.reserve(3u << 24);
  for (std::uint32_t group = 0; group < (1u << 24); ++group) {
    data += static_cast<char>(group >> 16);
    data += static_cast<char>(group >> 8);
    data += static_cast<char>(group);
  }
  std::string fromVector(data.size() / 3 * 4, '\0');
  std::string fromPortable(fromVector.size(), '\0');
  const auto* in = reinterpret_cast<const unsigned char*>(data.data());
  vector(in, data.size(), fromVector.data());
  PortableBase64Encoder()(in, data.size(), fromPortable.data());
  EXPECT_TRUE(fromVector == fromPortable);
}

TEST(Base64, AppendingPieceByPieceGivesEachPieceItsLines) {
  std::string out;
  std::string expected;
  std::mt19937 random(7);
  for (int i = 0; i < 50; ++i) {
    const std::string piece = RandomBytes(random, random() % 5000);
    AppendBase64Lines(out, piece);
    expected += Encode(piece);
  }
  EXPECT_TRUE(out == expected);
}

}  // namespace
}  // namespace Pendrel::detail
