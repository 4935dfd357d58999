#include "json/JsonParser.h"

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "json/detail/JsonNode.h"
#include "json/detail/JsonTokenizer.h"

namespace Pendrel {

using detail::JsonToken;
using detail::JsonTokenizer;
using detail::JsonTokenValue;
using detail::JsonValueAccess;
using detail::RingQueue;

namespace {

enum class ParseError {
  UnknownToken,
  ExtraComma,
  MissingData,
  NameNotString,
  OutermostNotContainer,
  EndWithoutBeginning,
  MismatchedObject,
  MismatchedArray,
  ParentNotContainer,
};

// Handlers and logs match these texts; they must not change.
constexpr std::array<std::string_view, 9> kParseErrorText{
    "Unknown token: ",
    "Extra comma in array",
    "Missing data for value",
    "A name has to be a string",
    "Outermost node must be an object or array",
    "Found end of object or array without beginning",
    "Mismatched end and beginning of object",
    "Mismatched end and beginning of array",
    "Can only add elements to objects and arrays",
};

std::string MessageOf(ParseError error) {
  return std::string(kParseErrorText[static_cast<std::size_t>(error)]);
}

// A container still open, with the name under which it joins its parent.
struct OpenFrame {
  std::string name;
  JsonValue container;
};

// Consumes tokens in order, one token of look-ahead, and fails at the first token that does
// not fit. The tokenizer is stepped only as far as the look-ahead needs, which gives the
// same tokens in the same order as tokenising the whole text first, since the tokenizer
// never fails and nothing after a failing token is looked at.
class TreeBuilder {
 public:
  explicit TreeBuilder(std::string_view input) : m_tokenizer(input) {}
  explicit TreeBuilder(std::string& owner) : m_tokenizer(owner) {}

  // The root on success; the error otherwise.
  bool Run(JsonValue& root, std::string& message) {
    for (;;) {
      while (m_tokens.Size() < 2 && !m_tokenizer.AtEnd()) m_tokenizer.Step(m_tokens, m_values);
      if (m_tokens.Empty()) break;
      const JsonToken token = m_tokens.Pop();
      const bool hasNext = !m_tokens.Empty();
      const JsonToken next = hasNext ? m_tokens.Front() : JsonToken::Unknown;
      std::optional<ParseError> error;
      switch (token) {
        case JsonToken::ObjectBegin:
          Open(MakeObject());
          break;
        case JsonToken::ArrayBegin:
          Open(MakeArray());
          break;
        case JsonToken::Comma:
          // Commas are never required between values, and one before "}" is accepted.
          if (hasNext && next == JsonToken::ArrayEnd) error = ParseError::ExtraComma;
          break;
        case JsonToken::Value:
          error = hasNext && next == JsonToken::Colon ? TakeName() : AddValue();
          break;
        case JsonToken::ObjectEnd:
        case JsonToken::ArrayEnd:
          error = Close(token);
          break;
        case JsonToken::Unknown:
          message = MessageOf(ParseError::UnknownToken);
          if (!m_values.Empty()) message += m_values.Front().text;
          return false;
        default:
          break;  // a colon that no name took
      }
      if (error) {
        message = MessageOf(*error);
        return false;
      }
    }
    root = std::move(m_root);
    return true;
  }

 private:
  void Open(JsonValue container) {
    m_open.push_back(OpenFrame{std::move(m_pendingName), std::move(container)});
    m_pendingName.clear();
  }

  std::optional<ParseError> TakeName() {
    if (m_values.Empty()) return ParseError::MissingData;
    m_tokens.Pop();  // the colon
    JsonTokenValue name = m_values.Pop();
    if (name.kind != JsonKind::String) return ParseError::NameNotString;
    m_pendingName = std::move(name.text);
    return std::nullopt;
  }

  std::optional<ParseError> AddValue() {
    if (m_values.Empty()) return ParseError::MissingData;
    JsonTokenValue value = m_values.Pop();
    JsonValue node = JsonValueAccess::Adopt(value.kind, std::move(value.text));
    if (m_open.empty()) return ParseError::OutermostNotContainer;
    JsonValue& parent = m_open.back().container;
    if (IsObject(parent)) {
      AddMember(parent, std::move(m_pendingName), std::move(node));
    } else {
      Append(parent, std::move(node));  // the name is not used
    }
    m_pendingName.clear();
    return std::nullopt;
  }

  std::optional<ParseError> Close(JsonToken token) {
    if (m_open.empty()) return ParseError::EndWithoutBeginning;
    const JsonKind kind = m_open.back().container.Kind();
    if (token == JsonToken::ObjectEnd && kind != JsonKind::Object) {
      return ParseError::MismatchedObject;
    }
    if (token == JsonToken::ArrayEnd && kind != JsonKind::Array) {
      return ParseError::MismatchedArray;
    }
    OpenFrame frame = std::move(m_open.back());
    m_open.pop_back();
    if (m_open.empty()) {
      m_root = std::move(frame.container);  // a later top-level container replaces it
      return std::nullopt;
    }
    JsonValue& parent = m_open.back().container;
    if (IsObject(parent)) {
      AddMember(parent, std::move(frame.name), std::move(frame.container));
    } else if (IsArray(parent)) {
      Append(parent, std::move(frame.container));
    } else {
      return ParseError::ParentNotContainer;
    }
    return std::nullopt;
  }

  JsonTokenizer m_tokenizer;
  RingQueue<JsonToken> m_tokens;
  RingQueue<JsonTokenValue> m_values;
  std::vector<OpenFrame> m_open;
  std::string m_pendingName;
  JsonValue m_root;
};

}  // namespace

namespace {

void Build(TreeBuilder&& builder, std::string& errorText, JsonValue& result) {
  std::string message;
  JsonValue root;
  if (builder.Run(root, message)) {
    result = std::move(root);
  } else {
    result = JsonValue();
    errorText = std::move(message);
  }
}

}  // namespace

void ParseJson(std::string& errorText, JsonValue& result, std::string_view input) {
  Build(TreeBuilder(input), errorText, result);
}

void ParseJsonInPlace(std::string& errorText, JsonValue& result, std::string& input) {
  Build(TreeBuilder(input), errorText, result);
}

}  // namespace Pendrel
