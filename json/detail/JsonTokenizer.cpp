#include "json/detail/JsonTokenizer.h"

#include <algorithm>  // std::min
#include <array>
#include <cstring>  // std::memmove

#include "base/LargeBuffer.h"
#include "json/detail/JsonEscapes.h"

namespace Pendrel::detail {
namespace {

// What a byte means to the tokenizer outside strings and comments.
enum class ByteClass : unsigned char {
  WordByte,  // anything else: collected into the current bare word
  Space,     // tab, line feed, carriage return, space: skipped, and a word goes on after it
  Quote,
  Slash,  // a comment, or a byte of the word
  Punctuation,
};

struct ByteClassTable {
  std::array<ByteClass, 256> classOf{};
  std::array<JsonToken, 256> tokenOf{};
};

constexpr ByteClassTable MakeByteClassTable() {
  ByteClassTable table;
  for (auto& c : table.classOf) c = ByteClass::WordByte;
  for (unsigned char c : {'\t', '\n', '\r', ' '}) table.classOf[c] = ByteClass::Space;
  table.classOf['"'] = ByteClass::Quote;
  table.classOf['/'] = ByteClass::Slash;
  const std::pair<unsigned char, JsonToken> punctuation[] = {
      {'{', JsonToken::ObjectBegin}, {'}', JsonToken::ObjectEnd}, {'[', JsonToken::ArrayBegin},
      {']', JsonToken::ArrayEnd},    {',', JsonToken::Comma},     {':', JsonToken::Colon},
  };
  for (const auto& [byte, token] : punctuation) {
    table.classOf[byte] = ByteClass::Punctuation;
    table.tokenOf[byte] = token;
  }
  return table;
}

constexpr ByteClassTable kByteClasses = MakeByteClassTable();

ByteClass ClassOf(char c) { return kByteClasses.classOf[static_cast<unsigned char>(c)]; }

// The C library's upper-casing in the default locale: only a to z change.
char UpperAscii(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool EqualsUpper(std::string_view word, std::string_view upper) {
  if (word.size() != upper.size()) return false;
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (UpperAscii(word[i]) != upper[i]) return false;
  }
  return true;
}

bool IsLooseNumber(std::string_view word) {
  bool seenE = false;
  bool signAfterE = false;
  bool digitAfterE = false;
  bool seenPoint = false;
  bool minusBeforeE = false;
  for (const char c : word) {
    const char upper = UpperAscii(c);
    if (upper >= '0' && upper <= '9') {
      digitAfterE = digitAfterE || seenE;
      continue;
    }
    switch (upper) {
      case 'E':
        if (seenE) return false;
        seenE = true;
        break;
      case '.':
        if (seenPoint) return false;  // a point after the E is allowed
        seenPoint = true;
        break;
      case '-':
        if (!seenE) {
          if (minusBeforeE) return false;  // wherever it stands: 1-2 passes
          minusBeforeE = true;
        } else {
          if (signAfterE) return false;
          signAfterE = true;
        }
        break;
      case '+':
        if (!seenE || signAfterE) return false;
        signAfterE = true;
        break;
      default:
        return false;
    }
  }
  return !seenE || digitAfterE;
}

}  // namespace

namespace {

// Input bytes unescaped at a time into a buffer that stays in the cache, from which the text
// is appended: no output byte is written twice, and none is zeroed first.
constexpr std::size_t kPiece = 16384;
using PieceBuffer = std::array<char, kPiece + 1 + kCopySlack>;

// The end of the piece that starts at `first`, where no escape is pending: at most kPiece
// bytes, one more when the last of them is a backslash that escapes the next byte, so that
// no escape is split. Backslashes pair up from `first` on, so only the run before the end
// within the piece needs counting.
const char* PieceEnd(const char* first, const char* last) {
  const char* end = first + std::min<std::size_t>(kPiece, static_cast<std::size_t>(last - first));
  const char* runStart = end;
  while (runStart != first && runStart[-1] == '\\') --runStart;
  if (end != last && (end - runStart) % 2 != 0) ++end;
  return end;
}

// Reads a string of unknown length: unescapes it while looking for its end, into room for
// the rest of the input. Returns the end (the quote, or the end of the input).
const char* ReadLongString(const char* begin, const char* last, std::string& out) {
  const JsonTextKernels& kernels = JsonText();
  PieceBuffer buffer;
  base::ReserveLarge(out, static_cast<std::size_t>(last - begin));
  const char* first = begin;
  for (;;) {
    const char* const end = PieceEnd(first, last);
    const char* stop = end;
    const char* const written = kernels.copyStringUnescaped(first, end, buffer.data(), stop);
    out.append(buffer.data(), static_cast<std::size_t>(written - buffer.data()));
    if (stop != end || end == last) {
      // Room for the rest of the input was only a bound; give back what is far beyond it.
      if (out.capacity() / 2 > out.size() + kPiece) out.shrink_to_fit();
      return stop;
    }
    first = end;
  }
}

}  // namespace

std::string UnescapeJsonText(std::string_view text) {
  const JsonTextKernels& kernels = JsonText();
  PieceBuffer buffer;
  std::string out;
  base::ReserveLarge(out, text.size());
  const char* const begin = text.data();
  const char* const last = begin + text.size();
  for (const char* first = begin; first != last;) {
    const char* const end = PieceEnd(first, last);
    const char* const written = kernels.copyUnescaped(first, end, buffer.data());
    out.append(buffer.data(), static_cast<std::size_t>(written - buffer.data()));
    first = end;
  }
  return out;
}

std::string ReadStringToken(std::string_view input, std::size_t& pos) {
  // A string found to end within the first bytes is copied at its exact size; a longer one,
  // normally a file's contents, is read in one pass instead of being measured first. The
  // probe is short: every byte it looks at in a long string is looked at twice.
  constexpr std::size_t kProbe = 4096;
  const char* const begin = input.data() + pos;
  const char* const last = input.data() + input.size();
  const char* const probeEnd =
      begin + std::min<std::size_t>(kProbe, static_cast<std::size_t>(last - begin));
  bool hasBackslash = false;
  const char* end = JsonText().findStringEnd(begin, probeEnd, hasBackslash);
  std::string text;
  if (end != probeEnd || probeEnd == last) {
    const std::string_view kept(begin, static_cast<std::size_t>(end - begin));
    text = hasBackslash ? UnescapeJsonText(kept) : std::string(kept);
  } else {
    end = ReadLongString(begin, last, text);
  }
  pos = end == last ? input.size() : static_cast<std::size_t>(end - input.data()) + 1;
  return text;
}

// Strings from this size on take over the input's buffer when they may.
constexpr std::size_t kInPlaceThreshold = std::size_t{1} << 20;

std::string JsonTokenizer::ReadString() {
  if (m_owner == nullptr || m_input.size() - m_pos < kInPlaceThreshold) {
    return ReadStringToken(m_input, m_pos);
  }
  // The string is unescaped towards the start of the buffer as it is read, in one pass: the
  // bytes before it have been read (they are tokens already, owning their text), and
  // unescaping never writes past what it has read, so the write position never passes the
  // read position and what follows the string stays as it was. A string that is most of the
  // input then takes the buffer over; a shorter one (a member's name, say) is copied out,
  // and reading goes on in the buffer after it.
  const JsonTextKernels& kernels = JsonText();
  PieceBuffer buffer;
  char* const base = m_owner->data();
  const char* const last = base + m_owner->size();
  const char* const begin = base + m_pos;
  char* out = base;
  const char* first = begin;
  const char* stop = nullptr;
  for (;;) {
    const char* const end = PieceEnd(first, last);
    stop = end;
    const char* const written = kernels.copyStringUnescaped(first, end, buffer.data(), stop);
    const auto length = static_cast<std::size_t>(written - buffer.data());
    std::memmove(out, buffer.data(), length);
    out += length;
    if (stop != end || end == last) break;
    first = end;
  }
  const auto length = static_cast<std::size_t>(out - base);
  const char* const next = stop == last ? last : stop + 1;
  if (static_cast<std::size_t>(stop - begin) < (m_owner->size() - m_pos) / 2) {
    m_pos = static_cast<std::size_t>(next - base);
    return std::string(base, length);
  }
  // What follows the string is read from a copy of its own (normally a few closing bytes).
  m_rest.assign(next, last);
  std::string text = std::move(*m_owner);
  m_owner = nullptr;
  text.resize(length);
  // A string much shorter than the input it came from gives back the rest.
  if (text.capacity() / 2 > text.size() + kPiece) text.shrink_to_fit();
  m_input = m_rest;
  m_pos = 0;
  return text;
}

std::optional<JsonTokenValue> ClassifyLiteral(std::string_view word) {
  if (EqualsUpper(word, "NULL")) return JsonTokenValue{JsonKind::Null, std::string()};
  if (EqualsUpper(word, "TRUE")) return JsonTokenValue{JsonKind::Bool, "true"};
  if (EqualsUpper(word, "FALSE")) return JsonTokenValue{JsonKind::Bool, "false"};
  if (IsLooseNumber(word)) return JsonTokenValue{JsonKind::Number, std::string(word)};
  return std::nullopt;
}

void JsonTokenizer::FlushWord(RingQueue<JsonToken>& tokens, RingQueue<JsonTokenValue>& values) {
  if (m_word.empty()) return;
  if (std::optional<JsonTokenValue> literal = ClassifyLiteral(m_word)) {
    values.Push(std::move(*literal));
    tokens.Push(JsonToken::Value);
  } else {
    values.Push(JsonTokenValue{JsonKind::String, m_word});
    tokens.Push(JsonToken::Unknown);
  }
  m_word.clear();
}

bool JsonTokenizer::SkipComment() {
  const std::size_t opener = m_pos + 1;
  if (opener == m_input.size()) return false;
  if (m_input[opener] == '*') {
    // The "*" of the opener does not count towards the closer: "/*/" stays open.
    const std::size_t closer = m_input.find("*/", opener + 1);
    m_pos = closer == std::string_view::npos ? m_input.size() : closer + 2;
    return true;
  }
  if (m_input[opener] == '/') {
    // Up to the line feed, which is left to be read as white space.
    const std::size_t lineFeed = m_input.find('\n', opener + 1);
    m_pos = lineFeed == std::string_view::npos ? m_input.size() : lineFeed;
    return true;
  }
  return false;
}

void JsonTokenizer::Step(RingQueue<JsonToken>& tokens, RingQueue<JsonTokenValue>& values) {
  const std::size_t size = m_input.size();
  while (m_pos < size) {
    const char c = m_input[m_pos];
    switch (ClassOf(c)) {
      case ByteClass::Space:
        // Does not end a word, and no end-of-input check follows: a word followed only by
        // white space at the end is never flushed.
        ++m_pos;
        continue;
      case ByteClass::Quote: {
        ++m_pos;
        // The string's value is queued before the pending word's.
        values.Push(JsonTokenValue{JsonKind::String, ReadString()});
        FlushWord(tokens, values);
        tokens.Push(JsonToken::Value);
        return;
      }
      case ByteClass::Punctuation:
        ++m_pos;
        FlushWord(tokens, values);
        tokens.Push(kByteClasses.tokenOf[static_cast<unsigned char>(c)]);
        return;
      case ByteClass::Slash:
        if (!SkipComment()) {
          m_word.push_back(c);
          ++m_pos;
        }
        break;
      case ByteClass::WordByte: {
        const std::size_t start = m_pos;
        while (m_pos < size && ClassOf(m_input[m_pos]) == ByteClass::WordByte) ++m_pos;
        m_word.append(m_input, start, m_pos - start);
        break;
      }
    }
    // After a comment or word bytes, the end of the input flushes the word.
    if (m_pos == size) {
      FlushWord(tokens, values);
      return;
    }
  }
}

}  // namespace Pendrel::detail
