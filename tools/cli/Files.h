// Whole-file reading and writing for the command line, by UTF-8 path, in binary.
#pragma once

#include <string>
#include <string_view>

namespace PendrelCli {

// Reads the file at `path` ("-": standard input) into `data`; false when it cannot be read.
bool ReadWholeFile(const std::string& path, std::string& data);

// Why the file at `path` cannot be read, for a message: "there is no such file", "it is a
// folder" or "it cannot be read".
std::string ReadErrorText(const std::string& path);

// Whether `path` names a folder.
bool IsFolder(const std::string& path);

// Creates or replaces the file `name` in the folder `folder` with `data`; false when it
// cannot be written.
bool WriteWholeFile(const std::string& folder, const std::string& name, std::string_view data);

// Creates `folder` and its parents where missing; false when it does not exist afterwards.
bool MakeFolder(const std::string& folder);

// The last part of `path`, after its last folder separator ("/", and also "\" on Windows).
std::string LastPathPart(const std::string& path);

}  // namespace PendrelCli
