// The tokenizer of the JSON parser: turns the text into token codes and a side queue of
// scalar values, which the tree builder (JsonParser.cpp) consumes in order.
//
// The dialect is the lenient one that handlers write and expect: white space and comments do
// not end a bare word ("t r u e" is true, "1 2" is 12), literals ignore case, numbers have a
// loose syntax, and only the writer's eight escapes are decoded in strings. Two orderings
// are part of the dialect and are kept exactly:
// - A quoted string queues its value before a pending bare word is flushed, so in abc"def"
//   the value queue holds def ahead of abc while the tokens read Unknown, Value.
// - A word is flushed at the end of the input only when its last byte (or a comment) ends
//   the input; a word followed by nothing but white space is dropped.
// The tokenizer never fails. It is stepped by the builder so that tokens and values need not
// all be held at once; the order of tokens and values is that of a whole-text pass.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "json/JsonValue.h"

namespace Pendrel::detail {

enum class JsonToken : std::uint32_t {
  Unknown = 0,  // a bare word that is neither a literal nor a number
  ObjectBegin = 1,
  ObjectEnd = 2,
  ArrayBegin = 3,
  ArrayEnd = 4,
  Comma = 5,
  Colon = 6,
  Value = 7,  // a quoted string, or a recognised literal or number
};

// One entry of the value queue: kind Null, String, Number or Bool, and the UTF-8 text.
struct JsonTokenValue {
  JsonKind kind = JsonKind::String;
  std::string text;
};

// A first-in first-out queue kept in one ring of slots; the builder holds only a few entries
// at a time, so it does not allocate once warmed up.
template <typename T>
class RingQueue {
 public:
  bool Empty() const { return m_count == 0; }
  std::size_t Size() const { return m_count; }
  const T& Front() const { return m_slots[m_head]; }

  void Push(T item) {
    if (m_count == m_slots.size()) Grow();
    m_slots[(m_head + m_count) & (m_slots.size() - 1)] = std::move(item);
    ++m_count;
  }

  T Pop() {
    T item = std::move(m_slots[m_head]);
    m_head = (m_head + 1) & (m_slots.size() - 1);
    --m_count;
    return item;
  }

 private:
  void Grow() {
    std::vector<T> slots(m_slots.empty() ? 4 : m_slots.size() * 2);
    for (std::size_t i = 0; i < m_count; ++i) {
      slots[i] = std::move(m_slots[(m_head + i) & (m_slots.size() - 1)]);
    }
    m_slots = std::move(slots);
    m_head = 0;
  }

  std::vector<T> m_slots;  // size is zero or a power of two
  std::size_t m_head = 0;
  std::size_t m_count = 0;
};

// `text` with each backslash pair of the escape table replaced by its byte; every other
// byte, a backslash before anything else included, is kept ("\u0041" stays six bytes).
std::string UnescapeJsonText(std::string_view text);

// Reads the string that starts at `pos`, just after its opening quote, up to the first
// quote not escaped by a backslash (a backslash escapes the byte after it, whatever it is).
// Leaves `pos` after that quote, or at the end of `input` when there is none; an unclosed
// string simply ends there. Returns the text unescaped.
std::string ReadStringToken(std::string_view input, std::size_t& pos);

// The value of a bare word when it is a literal (null, true, false in any case) or a number
// in the loose syntax (digits, at most one point, one minus before the E, one E with at
// least one digit and at most one sign after it: "-", "." and "1-2" pass, "1e" does not);
// nothing otherwise. A number keeps the word as written.
std::optional<JsonTokenValue> ClassifyLiteral(std::string_view word);

class JsonTokenizer {
 public:
  explicit JsonTokenizer(std::string_view input) : m_input(input) {}
  // Reads `owner`, whose buffer the first long string (a file's contents) may take over: it
  // is unescaped towards the buffer's start and the buffer moved into its value, so that it
  // needs neither a copy nor new memory. `owner` is left in an unspecified state.
  explicit JsonTokenizer(std::string& owner) : m_input(owner), m_owner(&owner) {}

  bool AtEnd() const { return m_pos == m_input.size(); }

  // Reads on until at least one token has been pushed or the input has ended. Each token
  // whose code is Value or Unknown comes with one entry in `values`.
  void Step(RingQueue<JsonToken>& tokens, RingQueue<JsonTokenValue>& values);

 private:
  // Queues the pending word, if any, as a literal or an Unknown token.
  void FlushWord(RingQueue<JsonToken>& tokens, RingQueue<JsonTokenValue>& values);
  // Skips the comment whose "/" is at m_pos, when there is one there.
  bool SkipComment();

  // Reads the string whose opening quote is just before m_pos, taking over m_owner's
  // buffer when the string is long.
  std::string ReadString();

  std::string_view m_input;
  std::size_t m_pos = 0;
  std::string m_word;
  std::string* m_owner = nullptr;  // whose buffer a long string may take; null once taken
  std::string m_rest;              // the input after that string, read from then on
};

}  // namespace Pendrel::detail
