// Base64 with the line layout of the system's multipart bodies: the standard alphabet with
// "=" padding, cut into lines of 65 characters joined by CRLF (none before the first line,
// none after the last). Clients of existing hosts parse exactly this layout.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Pendrel::detail {

inline constexpr std::size_t kBase64LineLength = 65;

// Number of characters AppendBase64Lines adds for `size` bytes of data.
std::size_t Base64LinesLength(std::size_t size);

// Appends the base64 text of `data` in 65-character CRLF-joined lines to `out`, encoding
// and cutting in one pass straight into `out`. Empty data appends nothing.
void AppendBase64Lines(std::string& out, std::string_view data);

}  // namespace Pendrel::detail
