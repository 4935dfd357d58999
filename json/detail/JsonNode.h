// The shared node behind JsonValue handles, and the access that the writer and the parser
// need to it. Private to the JSON layer.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "json/JsonValue.h"

namespace Pendrel::detail {

struct JsonNode {
  // Handles (and member slots) pointing here. Signed, as copy on write compares it with 2.
  std::int32_t refcount = 1;
  JsonKind kind = JsonKind::None;
  std::string text;
  // Set instead of `text` for a String whose bytes the tree does not own (MakeBorrowedString).
  const char* borrowed = nullptr;
  std::size_t borrowedSize = 0;
  std::vector<JsonMember> members;
  // Links nodes that are being released, so that freeing a tree needs neither recursion nor
  // memory of its own.
  JsonNode* nextToFree = nullptr;

  std::string_view Text() const {
    return borrowed != nullptr ? std::string_view(borrowed, borrowedSize) : std::string_view(text);
  }

  void SetText(std::string&& value) {
    text = std::move(value);
    borrowed = nullptr;
    borrowedSize = 0;
  }
};

struct JsonValueAccess {
  static JsonNode* Node(const JsonValue& value) noexcept { return value.m_node; }

  // A handle owning a new node; the parser builds scalars with it to move their texts in.
  static JsonValue Adopt(JsonKind kind, std::string&& text) {
    JsonValue value;
    auto* node = new JsonNode;
    node->kind = kind;
    node->text = std::move(text);
    value.m_node = node;
    return value;
  }

  // Takes the node out of `value` without dropping its reference.
  static JsonNode* Release(JsonValue& value) noexcept {
    return std::exchange(value.m_node, nullptr);
  }

  static void Reset(JsonValue& value, JsonNode* node) noexcept { value.m_node = node; }
};

}  // namespace Pendrel::detail
