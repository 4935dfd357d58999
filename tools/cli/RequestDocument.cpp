#include "tools/cli/RequestDocument.h"

#include <cstddef>
#include <nlohmann/json.hpp>

namespace PendrelCli {
namespace {

// "line L, column C" of the byte at `offset` (0-based).
std::string Where(std::string_view text, std::size_t offset) {
  std::size_t line = 1;
  std::size_t column = 1;
  for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
    if (text[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

// The reason of a parse error without the library's tag and position ("[json.exception.…]
// parse error at line 1, column 5: syntax error while parsing value - …").
std::string Reason(const char* what) {
  std::string text = what;
  const std::size_t column = text.find("column ");
  if (column != std::string::npos) {
    const std::size_t colon = text.find(": ", column);
    if (colon != std::string::npos) return text.substr(colon + 2);
  }
  const std::size_t tag = text.find("] ");
  return tag == std::string::npos ? text : text.substr(tag + 2);
}

}  // namespace

std::string CheckRequestDocument(std::string_view text) {
  // The JSON library skips a byte order mark silently; a request document must not have one.
  if (text.substr(0, 3) == "\xEF\xBB\xBF") {
    return "line 1, column 1: the document starts with a byte order mark (BOM)";
  }
  nlohmann::json document;
  try {
    document = nlohmann::json::parse(text.begin(), text.end());
  } catch (const nlohmann::json::parse_error& error) {
    // `byte` counts from 1 and points just past the byte that made the parse fail.
    const std::size_t offset = error.byte > 0 ? error.byte - 1 : 0;
    return Where(text, offset) + ": " + Reason(error.what());
  }
  if (!document.is_object()) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    return Where(text, first == std::string_view::npos ? 0 : first) +
           ": the document is not a JSON object (a request is {…})";
  }
  return "";
}

}  // namespace PendrelCli
