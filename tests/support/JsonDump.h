// A readable dump of a JsonValue tree for tests: every node with its kind and text.
//
//   empty handle  <empty>        Object  {"name":value,...}    Array  [value,...]
//   String        "text"         Number  #text                 Bool   !text
//   Null          null           other   ?code
//
// Texts and names are quoted with \" and \\ escaped and bytes outside 0x20..0x7E as \xNN,
// so two dumps are equal exactly when the trees hold the same kinds and bytes. Walks the
// tree without recursion, so deep trees can be dumped too.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "json/JsonParser.h"
#include "json/JsonValue.h"

namespace pendrel_test {

inline void AppendQuoted(std::string& out, std::string_view text) {
  out += '"';
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20 || byte > 0x7E) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", byte);
      out += hex;
    } else {
      out += c;
    }
  }
  out += '"';
}

inline std::string DumpJson(const Pendrel::JsonValue& root) {
  using Pendrel::JsonKind;
  struct Open {
    const Pendrel::JsonValue* container;
    std::size_t next;
  };
  std::string out;
  std::vector<Open> open;
  auto writeValue = [&](const Pendrel::JsonValue& value) {
    switch (value.Kind()) {
      case JsonKind::None:
        out += "<empty>";
        break;
      case JsonKind::Object:
        out += '{';
        open.push_back(Open{&value, 0});
        break;
      case JsonKind::Array:
        out += '[';
        open.push_back(Open{&value, 0});
        break;
      case JsonKind::String:
        AppendQuoted(out, value.Text());
        break;
      case JsonKind::Number:
        out += '#';
        out += value.Text();
        break;
      case JsonKind::Bool:
        out += '!';
        out += value.Text();
        break;
      case JsonKind::Null:
        out += "null";
        break;
      default:
        out += '?' + std::to_string(static_cast<unsigned>(value.Kind()));
        break;
    }
  };
  writeValue(root);
  while (!open.empty()) {
    Open& top = open.back();
    const auto members = Pendrel::Members(*top.container);
    const bool isObject = top.container->Kind() == JsonKind::Object;
    if (top.next == members.size()) {
      out += isObject ? '}' : ']';
      open.pop_back();
      continue;
    }
    const Pendrel::JsonMember& member = members.begin()[top.next];
    if (top.next++ != 0) out += ',';
    if (isObject) {
      AppendQuoted(out, member.name);
      out += ':';
    }
    writeValue(member.value);
  }
  return out;
}

// The dump of `input` parsed, or "error: " and the message.
inline std::string ParseAndDump(const std::string& input) {
  std::string error;
  Pendrel::JsonValue root;
  Pendrel::ParseJson(error, root, input);
  if (!error.empty()) return "error: " + error;
  return DumpJson(root);
}

}  // namespace pendrel_test
