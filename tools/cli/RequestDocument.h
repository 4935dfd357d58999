// The strict check of a --request document, made with a JSON library of its own before the
// record's lenient reader (which takes anything) reads it.
#pragma once

#include <string>
#include <string_view>

namespace PendrelCli {

// "" when `text` is exactly one JSON object in UTF-8 with nothing but white space around it;
// otherwise why not, with where: "line L, column C: <reason>" (lines and columns count from
// 1, columns in bytes). A byte order mark, truncated or trailing text and invalid UTF-8 are
// refused. Any thread.
std::string CheckRequestDocument(std::string_view text);

}  // namespace PendrelCli
