// The JSON document model that every JSON text of the library passes through: a tree of
// reference-counted nodes reached through value handles (JsonValue).
//
// The model is deliberately small. It has no floating-point numbers and stores every scalar
// as text; objects are ordered member lists, not maps, so names may repeat and lookups take
// the first match. Handles share nodes: copying a handle adds a reference, and every change
// first detaches the changed node (copy on write), so sharing is invisible to callers.
// Operations applied to the wrong kind of value are silent no-ops or give a neutral result;
// only running out of memory throws.
//
// Reference counts are plain integers: a tree, and every handle that shares nodes with it,
// belongs to one thread at a time. Releasing a tree never recurses, however deep it is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Pendrel {

namespace detail {
struct JsonNode;
struct JsonValueAccess;
}  // namespace detail

// Kind of a node. The codes are shared with the parser's token values and must not change.
enum class JsonKind : std::uint32_t {
  None = 0,  // only as an argument to MakeValue: no node at all
  Object = 1,
  Array = 2,
  Null = 3,
  String = 4,  // text: the string's UTF-8 bytes, unescaped
  Number = 5,  // text: the number as written or formatted ("12", "-3", "1.5e3")
  Bool = 6,    // text: "true" or "false"
};

// A handle on a node, or the empty handle. Empty means "no value" and is distinct from a
// node of kind Null.
class JsonValue {
 public:
  constexpr JsonValue() noexcept = default;
  JsonValue(const JsonValue& other) noexcept;
  JsonValue(JsonValue&& other) noexcept;
  JsonValue& operator=(const JsonValue& other) noexcept;
  JsonValue& operator=(JsonValue&& other) noexcept;
  ~JsonValue();

  bool IsEmpty() const noexcept { return m_node == nullptr; }
  // The node's kind; None for the empty handle.
  JsonKind Kind() const noexcept;
  // The node's text (empty for containers and Null); an empty text for the empty handle.
  // Valid until the node is changed or released.
  std::string_view Text() const noexcept;

 private:
  friend struct detail::JsonValueAccess;
  detail::JsonNode* m_node = nullptr;
};

// One member of an object, or one element of an array (whose name is always empty).
struct JsonMember {
  std::string name;  // UTF-8, stored and compared as exact bytes
  JsonValue value;
};

// The members of a container, in insertion order; empty for anything else.
template <typename Member>
class JsonMemberRange {
 public:
  JsonMemberRange() = default;
  JsonMemberRange(Member* first, Member* last) : m_first(first), m_last(last) {}
  Member* begin() const { return m_first; }
  Member* end() const { return m_last; }
  std::size_t size() const { return static_cast<std::size_t>(m_last - m_first); }
  bool empty() const { return m_first == m_last; }

 private:
  Member* m_first = nullptr;
  Member* m_last = nullptr;
};

// --- Construction ---

// A new node of `kind` with empty text and no members; the empty handle for JsonKind::None.
// Codes outside the enumeration make a node that the writer skips.
JsonValue MakeValue(JsonKind kind);
JsonValue MakeObject();
JsonValue MakeArray();
// A String node holding the UTF-8 form of `text`, cut at its first zero unit.
JsonValue MakeString(std::wstring_view text);
// A Number node holding the decimal form of `value`.
JsonValue MakeNumber(std::int32_t value);
// A String node whose text is `bytes` without a copy: the caller keeps the bytes alive and
// unchanged for as long as the node (and any node copied from it) lives. For writing large
// texts, such as file contents, that a record already holds.
JsonValue MakeBorrowedString(std::string_view bytes);

// --- Changing a scalar ---
// Each changes only a node of kind Null, String, Number or Bool; the empty handle, objects
// and arrays are left as they are.

// Kind String, text `text` (UTF-8 bytes, taken over).
void SetString(JsonValue& value, std::string text);
// Kind Number, text the decimal form of `number` ("-12", "0", "7").
void SetInt(JsonValue& value, std::int32_t number);
// Kind Bool, text "true" or "false".
void SetBool(JsonValue& value, bool flag);

// --- Building containers ---
// When `array` / `object` holds an Array / Object: appends `element` / {name, value} (shared
// with the caller's handle, or taken over when passed as an rvalue) and returns the stored
// handle, which stays valid until the container changes again. Otherwise nothing is appended
// and the given handle itself is returned. Names are not checked for repeats.

JsonValue& Append(JsonValue& array, JsonValue& element);
JsonValue& Append(JsonValue& array, JsonValue&& element);
JsonValue& AddMember(JsonValue& object, std::string name, JsonValue& value);
JsonValue& AddMember(JsonValue& object, std::string name, JsonValue&& value);
// The name is converted to UTF-8 first, cut at its first zero unit.
JsonValue& AddMember(JsonValue& object, std::wstring_view name, JsonValue& value);
JsonValue& AddMember(JsonValue& object, std::wstring_view name, JsonValue&& value);

// --- Reading ---

// True when `object` holds an Object with a member named exactly `name`.
bool HasMember(const JsonValue& object, std::string_view name);
// The first member named exactly `name`. On a miss, or when `object` is not an Object, a
// process-wide empty handle; read through it, never write.
const JsonValue& GetMember(const JsonValue& object, std::string_view name);
// The first member whose name, converted to UTF-16, equals `name` unit for unit.
const JsonValue& GetMember(const JsonValue& object, std::wstring_view name);

// The Number's text read as a decimal integer: the leading integer part ("12.9" gives 12,
// "1e3" gives 1), saturated at the limits of a 32-bit int. 0 for text that does not start
// with an integer ("-", ".", "E1") and for every value that is not a Number.
std::int32_t AsInt(const JsonValue& value);
// Null gives "null"; String, Number and Bool their text converted from UTF-8; the empty
// handle, objects and arrays give `fallback`.
std::wstring AsWString(const JsonValue& value, std::wstring_view fallback);
// As AsWString without conversion and with an empty fallback: the text's bytes as they are.
std::string AsString(const JsonValue& value);
// True only for a Bool whose text is exactly "true".
bool AsBool(const JsonValue& value);
bool IsArray(const JsonValue& value);
bool IsObject(const JsonValue& value);

// The members or elements of a container, in order.
JsonMemberRange<const JsonMember> Members(const JsonValue& container);

// --- Taking parts out of a tree ---
// For readers that move large texts (file contents) into records instead of copying them.

// Detaches `container` and gives its members for change in place.
JsonMemberRange<JsonMember> MutableMembers(JsonValue& container);
// Detaches `object` and gives the stored handle of its first member named `name`; nullptr
// on a miss or when `object` is not an Object.
JsonValue* FindMember(JsonValue& object, std::string_view name);
// As AsString, then leaves `value` empty. The text is moved out when no other handle shares
// the node, copied otherwise.
std::string TakeString(JsonValue& value);

}  // namespace Pendrel
