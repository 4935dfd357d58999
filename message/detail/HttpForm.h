// The HTTP forms shared by requests and responses: the header and body of a single file,
// the multipart/mixed body with base64 parts, and its boundary.
#pragma once

#include <string>
#include <vector>

#include "message/CMimeFile.h"

namespace Pendrel::detail {

// Takes the first segment off the slash-separated resource `path` and returns it; one
// leading "/" is dropped first. Empty, with `path` empty, when nothing is left.
std::wstring TakeResourceSegment(std::wstring& path);

// Header of a body that is JSON text (or no body at all).
inline constexpr char kJsonHttpHeader[] =
    "Content-Type: application/json; charset=utf-8\nContent-Disposition: inline";

// A new boundary: "------------B0" and eleven random bytes as upper-case hex pairs, 36
// characters. The bytes come from a generator private to the library, seeded once from
// std::random_device, so the host's rand() sequence is neither consumed nor reseeded. Safe
// to call from several threads at once.
std::string MakeBoundary();

// Fills `header` and `body` for one or more files: the file's own bytes for one, a
// multipart/mixed body with base64 parts for several. `files` must not be empty. Both
// outputs are replaced.
void WriteFilesHttpForm(const std::vector<CMimeFile>& files, std::string& header,
                        std::string& body);

}  // namespace Pendrel::detail
