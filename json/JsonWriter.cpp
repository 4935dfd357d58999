#include "json/JsonWriter.h"

#include <algorithm>  // std::min
#include <array>
#include <string>
#include <utility>
#include <vector>

#include "base/LargeBuffer.h"
#include "json/detail/JsonEscapes.h"
#include "json/detail/JsonNode.h"

namespace Pendrel {

using detail::JsonNode;
using detail::JsonValueAccess;

namespace {

// Room for the escapes of a text, taken as one byte in sixteen: binary contents escape about
// one byte in thirty, so the output is normally reserved once; more escapes grow it.
std::size_t EstimatedEscapedSize(std::string_view text) { return text.size() + text.size() / 16; }

// Estimates the size of the text, without reading the bytes of strings.
class EstimatingSink {
 public:
  void Put(std::string_view text) { m_size += text.size(); }
  void Put(char) { ++m_size; }
  void PutRepeated(std::size_t count, char) { m_size += count; }
  void PutEscaped(std::string_view text) { m_size += EstimatedEscapedSize(text); }
  std::size_t Size() const { return m_size; }

 private:
  std::size_t m_size = 0;
};

// Appends to a string. Strings are escaped piece by piece into a small buffer that stays in
// the cache, then appended, which costs less than measuring every escape first.
class StringSink {
 public:
  explicit StringSink(std::string& out) : m_out(out), m_kernels(detail::JsonText()) {}
  void Put(std::string_view text) { m_out.append(text); }
  void Put(char c) { m_out.push_back(c); }
  void PutRepeated(std::size_t count, char c) { m_out.append(count, c); }
  void PutEscaped(std::string_view text) {
    const char* first = text.data();
    const char* const last = first + text.size();
    while (first != last) {
      const std::size_t piece =
          std::min<std::size_t>(kPiece, static_cast<std::size_t>(last - first));
      const char* const end = m_kernels.copyEscaped(first, first + piece, m_buffer.data());
      m_out.append(m_buffer.data(), static_cast<std::size_t>(end - m_buffer.data()));
      first += piece;
    }
  }

 private:
  static constexpr std::size_t kPiece = 8192;  // escaped, at most twice as long

  std::string& m_out;
  const detail::JsonTextKernels& m_kernels;
  std::array<char, 2 * kPiece + detail::kCopySlack> m_buffer;
};

class Serialiser {
 public:
  explicit Serialiser(const JsonWriteStyle& style)
      : m_style(style),
        m_lineBreak(style.lineBreak != nullptr ? style.lineBreak : ""),
        m_afterColon(style.afterColon != nullptr ? style.afterColon : "") {}

  // Walks the tree with an explicit stack of open containers instead of recursion, so that
  // the depth of a document is limited by memory, not by the thread's stack.
  template <typename Sink>
  void Write(const JsonNode* root, Sink& sink) {
    m_open.clear();
    WriteValue(root, sink);
    while (!m_open.empty()) {
      OpenContainer& top = m_open.back();
      const std::size_t depth = m_open.size() - 1;
      const std::vector<JsonMember>& members = top.node->members;
      if (top.next == members.size()) {
        sink.Put(m_lineBreak);
        Indent(depth, sink);
        sink.Put(top.node->kind == JsonKind::Object ? '}' : ']');
        m_open.pop_back();
        continue;
      }
      const JsonMember& member = members[top.next];
      if (top.next++ != 0) {
        sink.Put(',');
        sink.Put(m_lineBreak);
      }
      Indent(depth + 1, sink);
      if (top.node->kind == JsonKind::Object) {
        // Names go out as stored, unescaped.
        sink.Put('"');
        sink.Put(member.name);
        sink.Put('"');
        sink.Put(':');
        sink.Put(m_afterColon);
      }
      WriteValue(JsonValueAccess::Node(member.value), sink);  // may grow m_open
    }
  }

 private:
  struct OpenContainer {
    const JsonNode* node;
    std::size_t next;  // index of the next member to write
  };

  template <typename Sink>
  void WriteValue(const JsonNode* node, Sink& sink) {
    if (node == nullptr) return;  // an empty handle writes nothing, not even null
    switch (node->kind) {
      case JsonKind::Object:
      case JsonKind::Array:
        sink.Put(node->kind == JsonKind::Object ? '{' : '[');
        sink.Put(m_lineBreak);
        m_open.push_back(OpenContainer{node, 0});
        break;
      case JsonKind::String:
        sink.Put('"');
        sink.PutEscaped(node->Text());
        sink.Put('"');
        break;
      case JsonKind::Null:
        sink.Put(std::string_view("null"));
        break;
      case JsonKind::Number:
      case JsonKind::Bool:
        sink.Put(node->Text());
        break;
      default:
        break;  // not a kind the writer knows
    }
  }

  template <typename Sink>
  void Indent(std::size_t depth, Sink& sink) const {
    if (m_style.indent) sink.PutRepeated(depth * m_style.indentWidth, m_style.indentChar);
  }

  const JsonWriteStyle& m_style;
  const std::string_view m_lineBreak;
  const std::string_view m_afterColon;
  std::vector<OpenContainer> m_open;
};

}  // namespace

std::string EscapeJsonText(std::string_view text) {
  std::string out;
  out.reserve(EstimatedEscapedSize(text));
  StringSink(out).PutEscaped(text);
  return out;
}

void WriteJson(const JsonWriteStyle& style, const JsonValue& value, std::string& out) {
  const JsonNode* root = JsonValueAccess::Node(value);
  Serialiser serialiser(style);
  EstimatingSink estimate;
  serialiser.Write(root, estimate);
  std::string text;
  // A text of megabytes is mostly one file: its pages come huge before it is written.
  base::ReserveLarge(text, estimate.Size());
  StringSink sink(text);
  serialiser.Write(root, sink);
  // The text is written over `out` from its start, the way an output string stream seeded
  // with `out` would write it.
  if (out.size() <= text.size()) {
    out = std::move(text);
  } else {
    out.replace(0, text.size(), text);
  }
}

}  // namespace Pendrel
