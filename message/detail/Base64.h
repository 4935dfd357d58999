// Base64 with the line layout of the system's multipart bodies: the standard alphabet with
// "=" padding, cut into lines of 65 characters joined by CRLF (none before the first line,
// none after the last). Clients of existing hosts parse exactly this layout.
//
// Result files can be many megabytes, so the encoding of whole 3-byte groups comes twice: a
// portable loop with a table of character pairs, which is the reference, and a vector kernel
// for x86 processors with SSSE3 that encodes twelve bytes at a time. The processor is asked
// once which to use; both give the same characters.
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

// Encodes the `count` bytes at `in` (a multiple of 3) into count / 3 * 4 characters at `out`,
// without padding or line breaks. Reads no byte beyond in[count - 1].
using Base64GroupEncoder = void (*)(const unsigned char* in, std::size_t count, char* out);

// The table loop; every processor runs it.
Base64GroupEncoder PortableBase64Encoder();
// The SSSE3 kernel, or nullptr when this processor (or this build's target) has none.
Base64GroupEncoder VectorBase64Encoder();

// AppendBase64Lines with the given encoder of whole groups instead of the one this process
// uses, so that tests can hold the kernels against each other.
void AppendBase64Lines(std::string& out, std::string_view data, Base64GroupEncoder encoder);

}  // namespace Pendrel::detail
