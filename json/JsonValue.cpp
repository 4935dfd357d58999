#include "json/JsonValue.h"

#include <limits>
#include <string>
#include <utility>

#include "json/TextConversion.h"
#include "json/detail/JsonNode.h"

namespace Pendrel {

using detail::JsonNode;
using detail::JsonValueAccess;

namespace {

// The handle that GetMember gives on a miss; nobody writes through it.
const JsonValue kMissingMember;

void AddReference(JsonNode* node) noexcept {
  if (node != nullptr) ++node->refcount;
}

// Frees `node` and every node below it that no other handle holds. Nodes waiting to be freed
// are chained through their own nextToFree links instead of the call stack, so a million
// nested arrays are released as easily as one.
void FreeTree(JsonNode* node) noexcept {
  node->nextToFree = nullptr;
  JsonNode* pending = node;
  while (pending != nullptr) {
    JsonNode* current = pending;
    pending = current->nextToFree;
    for (JsonMember& member : current->members) {
      JsonNode* child = JsonValueAccess::Release(member.value);
      if (child == nullptr || --child->refcount > 0) continue;
      if (child->members.empty()) {
        delete child;
      } else {
        child->nextToFree = pending;
        pending = child;
      }
    }
    delete current;  // its member handles are all empty by now
  }
}

void DropReference(JsonNode* node) noexcept {
  if (node != nullptr && --node->refcount <= 0) FreeTree(node);
}

// The decimal form of `value`, as stream formatting writes it. Not std::to_string: its
// digit table is a unique global symbol that a shared library exports whatever its
// visibility, and the export table is to hold only the public interface.
std::string DecimalText(std::int32_t value) {
  char digits[11];
  char* const end = digits + sizeof digits;
  char* first = end;
  std::uint32_t magnitude =
      value < 0 ? 0u - static_cast<std::uint32_t>(value) : static_cast<std::uint32_t>(value);
  do {
    *--first = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  std::string text;
  text.reserve(static_cast<std::size_t>(end - first) + 1);
  if (value < 0) text += '-';
  text.append(first, end);
  return text;
}

bool IsScalarKind(JsonKind kind) {
  return kind == JsonKind::Null || kind == JsonKind::String || kind == JsonKind::Number ||
         kind == JsonKind::Bool;
}

JsonKind KindOf(const JsonValue& value) { return value.Kind(); }

// Copy on write: gives `value` a node of its own before it is changed. Children are shared
// with the old node, not cloned.
JsonNode* Detach(JsonValue& value) {
  JsonNode* node = JsonValueAccess::Node(value);
  if (node == nullptr || node->refcount < 2) return node;
  auto* copy = new JsonNode;
  copy->kind = node->kind;
  copy->text = node->text;
  copy->borrowed = node->borrowed;
  copy->borrowedSize = node->borrowedSize;
  copy->members = node->members;
  --node->refcount;  // at least one other handle still holds it
  JsonValueAccess::Reset(value, copy);
  return copy;
}

// The scalar node of `value` ready to be overwritten, or nullptr when `value` is not a scalar.
JsonNode* DetachScalar(JsonValue& value) {
  JsonNode* node = JsonValueAccess::Node(value);
  if (node == nullptr || !IsScalarKind(node->kind)) return nullptr;
  return Detach(value);
}

// Stores `member` at the end of `node` and returns its value. The records' objects hold a
// handful of members, so the first one makes room for four: no growth steps 1 → 2 → 4, and
// references to the first four values stay valid while the object fills.
JsonValue& StoreMember(JsonNode& node, JsonMember&& member) {
  constexpr std::size_t kFirstRoom = 4;
  if (node.members.empty()) node.members.reserve(kFirstRoom);
  node.members.push_back(std::move(member));
  return node.members.back().value;
}

}  // namespace

JsonValue::JsonValue(const JsonValue& other) noexcept : m_node(other.m_node) {
  AddReference(m_node);
}

JsonValue::JsonValue(JsonValue&& other) noexcept : m_node(std::exchange(other.m_node, nullptr)) {}

JsonValue& JsonValue::operator=(const JsonValue& other) noexcept {
  AddReference(other.m_node);  // first, so that assigning a handle to itself is safe
  DropReference(std::exchange(m_node, other.m_node));
  return *this;
}

JsonValue& JsonValue::operator=(JsonValue&& other) noexcept {
  if (this != &other) DropReference(std::exchange(m_node, std::exchange(other.m_node, nullptr)));
  return *this;
}

JsonValue::~JsonValue() { DropReference(m_node); }

JsonKind JsonValue::Kind() const noexcept {
  return m_node != nullptr ? m_node->kind : JsonKind::None;
}

std::string_view JsonValue::Text() const noexcept {
  return m_node != nullptr ? m_node->Text() : std::string_view();
}

JsonValue MakeValue(JsonKind kind) {
  if (kind == JsonKind::None) return JsonValue();
  return JsonValueAccess::Adopt(kind, std::string());
}

JsonValue MakeObject() { return MakeValue(JsonKind::Object); }

JsonValue MakeArray() { return MakeValue(JsonKind::Array); }

JsonValue MakeString(std::wstring_view text) {
  return JsonValueAccess::Adopt(JsonKind::String, Utf16ToUtf8Terminated(text));
}

JsonValue MakeNumber(std::int32_t value) {
  return JsonValueAccess::Adopt(JsonKind::Number, DecimalText(value));
}

JsonValue MakeBorrowedString(std::string_view bytes) {
  JsonValue value = MakeValue(JsonKind::String);
  JsonNode* node = JsonValueAccess::Node(value);
  node->borrowed = bytes.data() != nullptr ? bytes.data() : "";
  node->borrowedSize = bytes.size();
  return value;
}

void SetString(JsonValue& value, std::string text) {
  if (JsonNode* node = DetachScalar(value)) {
    node->kind = JsonKind::String;
    node->SetText(std::move(text));
  }
}

void SetInt(JsonValue& value, std::int32_t number) {
  if (JsonNode* node = DetachScalar(value)) {
    node->kind = JsonKind::Number;
    node->SetText(DecimalText(number));
  }
}

void SetBool(JsonValue& value, bool flag) {
  if (JsonNode* node = DetachScalar(value)) {
    node->kind = JsonKind::Bool;
    node->SetText(flag ? "true" : "false");
  }
}

JsonValue& Append(JsonValue& array, JsonValue& element) {
  if (KindOf(array) != JsonKind::Array) return element;
  JsonNode* node = Detach(array);
  return StoreMember(*node, JsonMember{std::string(), element});
}

JsonValue& Append(JsonValue& array, JsonValue&& element) {
  if (KindOf(array) != JsonKind::Array) return element;
  JsonNode* node = Detach(array);
  return StoreMember(*node, JsonMember{std::string(), std::move(element)});
}

JsonValue& AddMember(JsonValue& object, std::string name, JsonValue& value) {
  if (KindOf(object) != JsonKind::Object) return value;
  JsonNode* node = Detach(object);
  return StoreMember(*node, JsonMember{std::move(name), value});
}

JsonValue& AddMember(JsonValue& object, std::string name, JsonValue&& value) {
  if (KindOf(object) != JsonKind::Object) return value;
  JsonNode* node = Detach(object);
  return StoreMember(*node, JsonMember{std::move(name), std::move(value)});
}

JsonValue& AddMember(JsonValue& object, std::wstring_view name, JsonValue& value) {
  if (KindOf(object) != JsonKind::Object) return value;
  return AddMember(object, Utf16ToUtf8Terminated(name), value);
}

JsonValue& AddMember(JsonValue& object, std::wstring_view name, JsonValue&& value) {
  if (KindOf(object) != JsonKind::Object) return value;
  return AddMember(object, Utf16ToUtf8Terminated(name), std::move(value));
}

bool HasMember(const JsonValue& object, std::string_view name) {
  if (KindOf(object) != JsonKind::Object) return false;
  for (const JsonMember& member : Members(object)) {
    if (member.name == name) return true;
  }
  return false;
}

const JsonValue& GetMember(const JsonValue& object, std::string_view name) {
  if (KindOf(object) != JsonKind::Object) return kMissingMember;
  for (const JsonMember& member : Members(object)) {
    if (member.name == name) return member.value;
  }
  return kMissingMember;
}

const JsonValue& GetMember(const JsonValue& object, std::wstring_view name) {
  if (KindOf(object) != JsonKind::Object) return kMissingMember;
  const std::wstring wanted = AsDecodedText(name);
  for (const JsonMember& member : Members(object)) {
    if (Utf8ToUtf16(member.name) == wanted) return member.value;
  }
  return kMissingMember;
}

std::int32_t AsInt(const JsonValue& value) {
  if (KindOf(value) != JsonKind::Number) return 0;
  // Reads like stream extraction of an int: an optional sign and the leading digits; the
  // rest (a fraction, an exponent, a second minus) is ignored. Out-of-range values saturate.
  const std::string_view text = value.Text();
  std::size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
  if (i == text.size() || text[i] < '0' || text[i] > '9') return 0;
  constexpr std::int64_t kLimit = std::int64_t{std::numeric_limits<std::int32_t>::max()} + 1;
  std::int64_t magnitude = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    magnitude = magnitude * 10 + (text[i] - '0');
    if (magnitude > kLimit) magnitude = kLimit;
  }
  if (negative) return static_cast<std::int32_t>(-magnitude);
  return static_cast<std::int32_t>(magnitude < kLimit ? magnitude : kLimit - 1);
}

std::wstring AsWString(const JsonValue& value, std::wstring_view fallback) {
  switch (KindOf(value)) {
    case JsonKind::Null:
      return L"null";
    case JsonKind::String:
    case JsonKind::Number:
    case JsonKind::Bool:
      return Utf8ToUtf16(value.Text());
    default:
      return std::wstring(fallback);
  }
}

std::string AsString(const JsonValue& value) {
  switch (KindOf(value)) {
    case JsonKind::Null:
      return "null";
    case JsonKind::String:
    case JsonKind::Number:
    case JsonKind::Bool:
      return std::string(value.Text());
    default:
      return std::string();
  }
}

bool AsBool(const JsonValue& value) {
  return KindOf(value) == JsonKind::Bool && value.Text() == "true";
}

bool IsArray(const JsonValue& value) { return KindOf(value) == JsonKind::Array; }

bool IsObject(const JsonValue& value) { return KindOf(value) == JsonKind::Object; }

JsonMemberRange<const JsonMember> Members(const JsonValue& container) {
  const JsonNode* node = JsonValueAccess::Node(container);
  if (node == nullptr || node->members.empty()) return {};
  return {node->members.data(), node->members.data() + node->members.size()};
}

JsonMemberRange<JsonMember> MutableMembers(JsonValue& container) {
  const JsonKind kind = KindOf(container);
  if (kind != JsonKind::Object && kind != JsonKind::Array) return {};
  JsonNode* node = Detach(container);
  if (node->members.empty()) return {};
  return {node->members.data(), node->members.data() + node->members.size()};
}

JsonValue* FindMember(JsonValue& object, std::string_view name) {
  if (KindOf(object) != JsonKind::Object) return nullptr;
  for (JsonMember& member : MutableMembers(object)) {
    if (member.name == name) return &member.value;
  }
  return nullptr;
}

std::string TakeString(JsonValue& value) {
  JsonNode* node = JsonValueAccess::Node(value);
  std::string text;
  if (node != nullptr) {
    if (node->kind == JsonKind::Null) {
      text = "null";
    } else if (node->kind == JsonKind::String || node->kind == JsonKind::Number ||
               node->kind == JsonKind::Bool) {
      // The handle is dropped below, so an unshared node's own text is not needed any more.
      if (node->refcount == 1 && node->borrowed == nullptr) {
        text = std::move(node->text);
      } else {
        text = node->Text();
      }
    }
  }
  value = JsonValue();
  return text;
}

}  // namespace Pendrel
